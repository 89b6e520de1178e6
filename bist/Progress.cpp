#include "bist/Progress.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <utility>

Progress::Progress(std::string label, unsigned int seconds) : title(std::move(label)) {
  if (seconds > 1 && isatty(STDERR_FILENO) != 0) {
    thread = std::thread(&Progress::count, this, seconds);
  }
}

Progress::~Progress() {
  if (!thread.joinable()) {
    return;
  }
  {
    const std::lock_guard<std::mutex> lock(mutex);
    finished = true;
  }
  finish.notify_one();
  thread.join();
  dprintf(STDERR_FILENO, "\r\033[K");
}

void Progress::count(unsigned int seconds) {
  std::unique_lock<std::mutex> lock(mutex);
  for (unsigned int second = 0; !finished; ++second) {
    dprintf(STDERR_FILENO, "\r%s: %u of %u s", title.c_str(), second, seconds);
    finish.wait_for(lock, std::chrono::seconds(1), [this] { return finished; });
  }
}
