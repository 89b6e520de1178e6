// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "bist/Command.h"

/// How the program ends.
enum ExitStatus { pass = 0, fail = 1, usageOrNoHardware = 2, signalled = 128 };

/// What the options of every command say.
struct Common {
  bool json = false;
  std::string traceFile;
  std::string logFile;
  std::string junitFile;
  std::string htmlFile;

  bool records() const {
    return json || !logFile.empty() || !junitFile.empty() || !htmlFile.empty();
  }
};

/// What a command line asks for.
struct Call {
  const Command* command = nullptr;  ///< null where there is nothing to be done
  Common common = {};
  int exitStatus = pass;  ///< where there is nothing to be done
};

/// Reads the command line, and does nothing of it. What the command's own options say is the
/// command's. Prints what is asked for about the program, or what is wrong with the call. Throws
/// std::runtime_error when the files that it names cannot be.
Call readCall(int argc, const char* const* argv);
