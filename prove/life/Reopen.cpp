// SPDX-License-Identifier: MIT
// reopen MODULE COUNT: opens and closes a module that uses the library, which is unmapped each
// time, and prints what has grown.

#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "prove/life/Holdings.h"

namespace {

constexpr long initialisations = 2;  // of libpciaccess: in the module's constructor and destructor

bool libraryIsMapped() {
  std::ifstream file("/proc/self/maps");
  for (std::string line; std::getline(file, line);) {
    if (line.find("bist-talvero-hw-lib") != std::string::npos) {
      return true;
    }
  }
  return false;
}

bool openAndClose(const char* module) {
  void* const handle = dlopen(module, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    std::fprintf(stderr, "%s\n", dlerror());
    return false;
  }
  const bool mapped = libraryIsMapped();
  return dlclose(handle) == 0 && mapped && !libraryIsMapped();
}

bool openOften(const char* module, long count) {
  for (long time = 0; time < count; ++time) {
    if (!openAndClose(module)) {
      std::fprintf(stderr, "the library is not mapped and unmapped\n");
      return false;
    }
  }
  return true;
}

}  // namespace

int main(int /*count*/, char** arguments) {
  const char* const module = arguments[1];
  const long count = std::atol(arguments[2]);
  const long kept = keptBy(initialiseAndAsk);
  if (!openOften(module, std::min(count, 20L))) {
    return 1;
  }
  heldNow();
  const std::vector<long> before = heldNow();
  if (!openOften(module, count)) {
    return 1;
  }
  for (const std::string& what : grownSince(before, kept * initialisations * count)) {
    std::fprintf(stderr, "%s\n", what.c_str());
  }
}
