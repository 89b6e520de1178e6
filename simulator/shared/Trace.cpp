// SPDX-License-Identifier: MIT
#include "simulator/shared/Trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "simulator/shared/Clock.h"
#include "simulator/shared/State.h"

namespace simulator {

namespace {

thread_local int nesting = 0;

/// "3.020000 1234 ": seconds on the instrument's clock, and the process.
std::string timestamp(const State& state) {
  const std::int64_t time = now(state);
  char text[64];
  std::snprintf(text, sizeof text, "%" PRId64 ".%06" PRId64 " %d ", time / 1000000, time % 1000000,
                getpid());
  return text;
}

}  // namespace

void trace(const std::string& line) {
  State* const shared = state();
  if (shared == nullptr || shared->trace[0] == '\0' || nested()) {
    return;
  }
  const std::string text = (shared->timestamps ? timestamp(*shared) : "") + line + "\n";
  const int fd = ::open(shared->trace, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    shared->traceLost = true;
  }
  ::close(fd);
}

void traceResult(const std::string& line, int error) {
  trace(error == 0 ? line : line + ": " + strerrorname_np(error));
}

std::string inQuotes(const std::string& text) {
  std::string result = "\"";
  for (const char character : text) {
    if (character == '\n') {
      result += "\\n";
    } else if (character == '"' || character == '\\') {
      result += {'\\', character};
    } else if (static_cast<unsigned char>(character) < ' ') {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(character));
      result += escape;
    } else {
      result += character;
    }
  }
  return result + "\"";
}

Nested::Nested() { ++nesting; }

Nested::~Nested() { --nesting; }

bool nested() { return nesting > 0; }

}  // namespace simulator
