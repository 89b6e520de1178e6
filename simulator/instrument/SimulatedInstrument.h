// SPDX-License-Identifier: MIT
#pragma once

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
    bool timestamps = false;  ///< lines of the trace begin with time and process
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

/// Removes what instruments have left behind whose process was killed.
void removeAbandonedInstruments();

}  // namespace simulator
