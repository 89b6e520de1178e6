// SPDX-License-Identifier: MIT
#include "simulator/shared/Clock.h"

#include <ctime>

namespace simulator {

std::int64_t now(const State& state) {
  return state.fast ? state.slept.load() : hostTime() - state.started;
}

std::int64_t hostTime() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000;
}

}  // namespace simulator
