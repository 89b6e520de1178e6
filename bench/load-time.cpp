// SPDX-License-Identifier: MIT
// Measures what loading a library takes in a process that has its dependencies already: this
// program is linked with them. Each time is that of the first dlopen in a process of its own.

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <vector>

namespace {

/// Microseconds; negative when the library cannot be loaded.
double loadTime(const char* library) {
  const auto start = std::chrono::steady_clock::now();
  const void* handle = dlopen(library, RTLD_NOW);
  const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
  return handle == nullptr ? -1 : time.count();
}

double loadTimeInNewProcess(const char* library) {
  int ends[2];
  if (pipe(ends) != 0) {
    return -1;
  }
  const pid_t child = fork();
  if (child == 0) {
    const double time = loadTime(library);
    _exit(write(ends[1], &time, sizeof time) == sizeof time ? EXIT_SUCCESS : EXIT_FAILURE);
  }
  close(ends[1]);
  double time = -1;
  if (read(ends[0], &time, sizeof time) != sizeof time) {
    time = -1;
  }
  close(ends[0]);
  waitpid(child, nullptr, 0);
  return time;
}

}  // namespace

int main(int argc, char** argv) {
  constexpr std::size_t processes = 201;
  constexpr double limit = 1000;
  if (argc != 2) {
    std::cerr << "usage: load-time LIBRARY\n";
    return 2;
  }
  std::vector<double> times(processes);
  std::generate(times.begin(), times.end(), [&] { return loadTimeInNewProcess(argv[1]); });
  std::sort(times.begin(), times.end());
  if (times.front() < 0) {
    std::cerr << "load-time: " << argv[1] << " cannot be loaded\n";
    return 1;
  }
  const double median = times[processes / 2];
  std::cout << std::fixed;
  std::cout.precision(0);
  std::cout << "loading beyond dependencies, microseconds: minimum " << times.front() << ", median "
            << median << " of " << processes << " processes (limit " << limit << ")\n";
  return median <= limit ? 0 : 1;
}
