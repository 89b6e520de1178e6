// SPDX-License-Identifier: MIT
#pragma once

#include "bist/Report.h"

namespace CLI {
class App;
}

/// What a command asks of the machine: nothing where it finds out itself and leaves it as it is.
enum class Needs { nothing, instrument, spb };

/// A command of the program. Each has a file of its name in commands/, which also keeps what the
/// command's options have said, and a row in the table of talvero-bist.cpp.
struct Command {
  const char* name;
  const char* help;  ///< a line for --help
  Needs needs;
  /// Called once, before the command line is read; noOptions for a command without any.
  void (*addOptions)(CLI::App& app);
  /// Does the command's tests through the library's public classes and reports what they found, in
  /// a process of its own: see supervise().
  void (*run)(Report& report);
};

inline void noOptions(CLI::App&) {}

extern const Command boardCommand;
extern const Command captureCommand;
extern const Command errorsCommand;
extern const Command linkCommand;
extern const Command listCommand;
extern const Command marginCommand;
extern const Command powerCommand;
extern const Command prbsCommand;
extern const Command reportCommand;
extern const Command registerCommand;
extern const Command shimCommand;
extern const Command slotsCommand;
extern const Command stopCommand;
extern const Command soakCommand;
extern const Command topologyCommand;
extern const Command txCommand;
