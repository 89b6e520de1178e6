// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <cstdio>

#include "bist/output/Output.h"

void ProgressOutput::take(const Json& event) {
  const std::string kind = event["event"];
  if (kind == "progress") {
    clear();
    title = event["title"];
    duration = event["seconds"];
    since = std::chrono::steady_clock::now();
    show();
  } else if (kind == "section" || kind == "line") {
    clear();
  }
}

void ProgressOutput::show() {
  if (title.empty()) {
    return;
  }
  const auto time = std::chrono::steady_clock::now() - since;
  const auto passed = static_cast<long>(std::chrono::round<std::chrono::seconds>(time).count());
  const long left = duration - passed;
  dprintf(STDERR_FILENO, "\r%s: %ld s", title.c_str(), passed);
  if (left > 0) {
    dprintf(STDERR_FILENO, ", %ld s left", left);
  }
  dprintf(STDERR_FILENO, "\033[K");
}

void ProgressOutput::clear() {
  if (!title.empty()) {
    dprintf(STDERR_FILENO, "\r\033[K");
  }
  title.clear();
}

void ProgressOutput::finish(const Record& /*record*/) { clear(); }
