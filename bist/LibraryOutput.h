// SPDX-License-Identifier: MIT
#pragma once

#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

/// Keeps the library's console lines out of the program's own output for as long as it exists.
/// Register traces go to a trace file or nowhere; failure lines are collected for the report, and
/// go to the trace file too.
class LibraryOutput {
 public:
  /// @param traceFileName  empty for none
  /// Throws std::runtime_error when the file cannot be written.
  explicit LibraryOutput(const std::string& traceFileName);
  ~LibraryOutput();
  LibraryOutput(const LibraryOutput&) = delete;
  LibraryOutput& operator=(const LibraryOutput&) = delete;

  /// The program's own standard output.
  std::ostream& own() { return ownOutput; }

  /// The failure lines since the last call, after the register traces if those are wanted.
  std::vector<std::string> takeMessages(bool withTrace);

  /// Throws std::runtime_error when a line could not be written to the trace file.
  void requireTrace() const;

 private:
  std::ofstream traceFile;
  std::ostringstream traces;
  std::ostringstream failures;
  std::streambuf* standardOutput;
  std::streambuf* standardError;
  std::ostream ownOutput;
  std::string traceName;
};
