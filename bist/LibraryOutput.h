// SPDX-License-Identifier: MIT
#pragma once

#include <fstream>
#include <functional>
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

  /// Tells of each line that the library writes, when it does, and of those that
  /// nobody has taken yet.
  void listen(const std::function<void(const std::string& line)>& listener);

  /// Throws std::runtime_error when a line could not be written to the trace file.
  void requireTrace() const;

 private:
  /// Keeps what is written, and tells of each line that ends.
  class Lines : public std::streambuf {
   public:
    std::string take();

    int overflow(int character) override;
    std::streamsize xsputn(const char* written, std::streamsize size) override;

    std::function<void(const std::string& line)> listener;

   private:
    std::string text;
    std::size_t told = 0;  ///< how much of it
  };

  std::ofstream traceFile;
  Lines traces;
  Lines failures;
  std::streambuf* standardOutput;
  std::streambuf* standardError;
  std::ostream ownOutput;
  std::string traceName;
};
