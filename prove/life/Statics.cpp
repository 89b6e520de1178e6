// SPDX-License-Identifier: MIT
// Uses the library in static constructors and destructors: those of a program and, built as a
// module, those of one that is opened and closed. Each says so when all is right.

#include <cstdio>

#include "prove/life/Everything.h"

namespace {

void say(const char* when) {
  const std::string wrong = wrongOfEachDoor();
  std::printf("%s %s\n", when, wrong.empty() ? "right" : wrong.c_str());
  std::fflush(stdout);
}

const struct Static {
  Static() { say("constructor"); }
  ~Static() { say("destructor"); }
} object;

}  // namespace

int main() { say("main"); }
