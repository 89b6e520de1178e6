// SPDX-License-Identifier: MIT
#include "bist/Progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

Progress::Progress(const std::string& title, unsigned int seconds) {
  if (seconds <= 1 || isatty(STDERR_FILENO) == 0) {
    return;
  }
  thread = std::thread([title, seconds, finished = finish.get_future()] {
    unsigned int second = 0;
    do {
      dprintf(STDERR_FILENO, "\r%s: %u of %u s", title.c_str(), second++, seconds);
    } while (finished.wait_for(std::chrono::seconds(1)) == std::future_status::timeout);
  });
}

Progress::~Progress() {
  if (thread.joinable()) {
    finish.set_value();
    thread.join();
    dprintf(STDERR_FILENO, "\r\033[K");
  }
}
