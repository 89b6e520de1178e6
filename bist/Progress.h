#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

/// While it exists, a line on the terminal that counts the seconds of something that takes more
/// than one. Nothing where standard error is no terminal.
class Progress {
 public:
  Progress(std::string title, unsigned int seconds);
  ~Progress();
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

 private:
  void count(unsigned int seconds);

  std::string title;
  std::mutex mutex;
  std::condition_variable finish;
  bool finished = false;
  std::thread thread;
};
