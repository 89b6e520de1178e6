// SPDX-License-Identifier: MIT
#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// The instruments that this user runs on this machine. Those of others are left alone, by root
/// too: what they say of themselves need not be true.
namespace simulator {

/// Where instruments have their directories. Without links on the way to it, which umockdev would
/// not know again; a relative one, which nobody has to follow, and one that is not there as they
/// are.
std::filesystem::path temporaryDirectory();

/// How the names of instruments' directories begin.
constexpr char directoryStart[] = "talvero-sim.";

/// A file in an instrument's directory that its process holds locked for as long as it lives.
constexpr char lockName[] = "talvero-sim.lock";

/// Removes what instruments have left behind whose process was killed.
void removeAbandonedInstruments();

/// Puts a running instrument behind this process, to change it: the one that has a name, that a
/// process is or runs on or, for an empty text, the one that this process runs on or else the only
/// one. Throws std::runtime_error when there is no such instrument.
void attachRunning(const std::string& nameOrProcess);

/// Gives keys of the instrument behind this process new values: see SimulatedInstrument::set().
void setKeys(const std::vector<std::string>& settings);

}  // namespace simulator
