#pragma once

#include <cstdint>
#include <string>

#include "simulator/State.h"

/// The modules' power: the GPIO links below /sys/platform, "gpio_..._power_en" and
/// "gpio_..._seq_done".
///
/// Paths are relative to /sys/platform. Results are 0 or an errno value.
namespace simulator::power {

constexpr std::int64_t defaultDelay = 100000;  // microseconds
constexpr std::int64_t longAgo = 3600000000;

bool hasLinks(std::uint32_t module);

/// The directories of a module's power-enable and sequence-done link.
std::string enableLink(std::uint32_t module);
std::string doneLink(std::uint32_t module);

/// Whether the module is powered and its power-on sequence is done. Modules without power links
/// always are.
bool isUp(const State& state, std::uint32_t module);

// See Behaviour in InterposeFiles.cpp.
bool owns(const std::string& path);
int open(const std::string& path, bool writing, std::string& content);
int store(const std::string& path, const std::string& text);

}  // namespace simulator::power
