// SPDX-License-Identifier: MIT
#pragma once

#include <future>
#include <string>
#include <thread>

/// While it exists, a line on the terminal that counts the seconds of what is going on. Nothing
/// where standard error is no terminal.
class Progress {
 public:
  /// Of something that may take longer than a second.
  explicit Progress(const std::string& title);

  /// Of something that takes so many seconds; nothing if that is one or none.
  Progress(const std::string& title, unsigned int seconds);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  void show(const std::string& title, const std::string& end);

  std::promise<void> finish;
  std::thread thread;
};
