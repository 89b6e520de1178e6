// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// What a command line of talvero-sim asks for: to run a program or, of `list`, `show` and `set`,
/// what is true.
struct Arguments {
  std::string instrument = "full";
  std::optional<std::string> trace;
  std::optional<std::string> expect;
  bool timestamps = false;
  bool fast = false;
  std::string name;
  std::string state;
  std::optional<std::uint64_t> seed;
  bool summary = false;
  bool list = false;
  bool show = false;
  bool set = false;
  std::string on;
  std::vector<std::string> settings;
  std::vector<std::string> program;
};

constexpr int usageError = 2;

/// Reads the command line, and does nothing of it. Prints what is asked for about the program, or
/// what is wrong with the call; returns the exit status where there is nothing to be done.
std::optional<int> readCommandLine(int argc, const char* const* argv, Arguments& arguments);
