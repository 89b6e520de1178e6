// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

/// A directory that is removed with the object.
class Directory {
 public:
  Directory();
  ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;

  std::filesystem::path path;
};

/// What a command has written and how it has ended.
struct Outcome {
  int status;  ///< exit status; 128 plus the number of the signal that ended it; -1 if it did not
               ///< end
  std::string output;
  std::string errors;
};

/// A shell command in a process group of its own, which ends with the object.
class Process {
 public:
  explicit Process(const std::string& command);
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  /// Waits for the end, if it comes in time.
  Outcome outcome(std::chrono::seconds time = std::chrono::seconds(60));

  pid_t id() const { return process; }  ///< the command's own, if that begins with "exec"

 private:
  Directory directory;
  pid_t process;
};

Outcome run(const std::string& command);

/// The processes that have an environment variable of this value.
std::vector<pid_t> processesWith(const std::string& variable);

std::string contentOf(const std::filesystem::path& file);

/// The names in a directory, sorted.
std::vector<std::string> namesIn(const std::filesystem::path& directory);

std::string quoted(const std::string& word);
