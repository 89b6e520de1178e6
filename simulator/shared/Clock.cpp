// SPDX-License-Identifier: MIT
#include "simulator/shared/Clock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>

namespace simulator {

std::int64_t now(const State& state) {
  if (state.moment >= 0) {
    return state.moment;
  }
  return state.fast ? state.clock.slept.load() : hostTime() - state.started;
}

std::int64_t hostTime() { return hostNanoseconds() / 1000; }

std::int64_t hostNanoseconds() {
  timespec time{};
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &time);  // clock_gettime tells programs another one
  return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

}  // namespace simulator
