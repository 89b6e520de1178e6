// SPDX-License-Identifier: MIT
#include "bist/Progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>

Progress::Progress(const std::string& title) { show(title, " s"); }

Progress::Progress(const std::string& title, unsigned int seconds) {
  if (seconds > 1) {
    show(title, " of " + std::to_string(seconds) + " s");
  }
}

void Progress::show(const std::string& title, const std::string& end) {
  if (isatty(STDERR_FILENO) == 0) {
    return;
  }
  thread = std::thread([title, end, finished = finish.get_future()] {
    unsigned int second = 0;
    do {
      dprintf(STDERR_FILENO, "\r%s: %u%s", title.c_str(), second++, end.c_str());
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
