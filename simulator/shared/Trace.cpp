// SPDX-License-Identifier: MIT
#include "simulator/shared/Trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "simulator/shared/State.h"

namespace simulator {

namespace {

thread_local int nesting = 0;

}  // namespace

void trace(const std::string& line) {
  State* const shared = state();
  if (shared == nullptr || shared->trace[0] == '\0' || nested()) {
    return;
  }
  const std::string text = line + "\n";
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
