// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <cstdint>
#include <ios>
#include <string>
#include <vector>

#include "simulator/instrument/DescriptionFile.h"

namespace simulator {

/// A simulated instrument: while the object exists, this process and the programs that it starts
/// run on it instead of the host's hardware.
///
/// The process must be linked with the interposing library before libumockdev-preload. One
/// instrument exists at a time.
class SimulatedInstrument {
 public:
  struct Options {
    bool fast = true;         ///< sleeps advance a virtual clock
    std::string trace;        ///< file that receives the trace; empty for takeTrace() alone
    std::string name;         ///< by which others find it
    bool timestamps = false;  ///< lines of the trace begin with time and process
    std::uint64_t seed = 0;   ///< of failures by chance, which are the same with the same seed
  };

  explicit SimulatedInstrument(const Hardware& hardware);
  SimulatedInstrument(const Hardware& hardware, const Options& options);
  ~SimulatedInstrument();
  SimulatedInstrument(const SimulatedInstrument&) = delete;
  SimulatedInstrument& operator=(const SimulatedInstrument&) = delete;

  /// The trace since the last call, or since construction: one line for each access, in order.
  std::vector<std::string> takeTrace();

  /// Throws std::runtime_error when a line of the trace was lost.
  void requireTrace() const;

  /// Changes the instrument: each setting gives a key of its description a new value, as in
  /// "pci port1 link=down". Throws std::runtime_error with the reason if one of them cannot be, and
  /// then has changed nothing.
  void set(const std::vector<std::string>& settings);

  /// Makes the changes of the description that are due; returns the time until the next one, a
  /// second at most. Accesses and, on the virtual clock, sleeps do the same by themselves.
  std::chrono::microseconds makeChanges();

  /// What has become of the instrument. Its times are told from now on: see describe().
  Hardware hardware() const;

  /// Time on the instrument's clock, milliseconds.
  std::int64_t milliseconds() const;

  /// Puts what a program needs to run on this instrument, besides the name of its root directory,
  /// which is there from the start, into this process's environment. Throws
  /// std::runtime_error when the simulator lies where the dynamic linker cannot preload it from.
  void setProgramEnvironment() const;

 private:
  void release();

  std::string root;  // of the simulated file system
  std::string traceFile;
  std::streamoff traceTaken = 0;
  int lock = -1;
};

}  // namespace simulator
