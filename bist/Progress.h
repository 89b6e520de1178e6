// SPDX-License-Identifier: MIT
#pragma once

#include <future>
#include <string>
#include <thread>

/// While it exists, a line on the terminal that counts the seconds of something that takes more
/// than one. Nothing where standard error is no terminal.
class Progress {
 public:
  Progress(const std::string& title, unsigned int seconds);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  std::promise<void> finish;
  std::thread thread;
};
