// SPDX-License-Identifier: MIT
// Sleeps: in fast mode they only advance the instrument's clock.

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <string>

#include "simulator/preload/Next.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

constexpr std::int64_t second = 1000000;
constexpr std::int64_t longestUninterrupted = 10000;

std::int64_t microseconds(const timespec& time) {
  return std::int64_t{time.tv_sec} * second + time.tv_nsec / 1000;
}

timespec timespecOf(std::int64_t duration) {
  return {static_cast<time_t>(duration / second), static_cast<long>(duration % second * 1000)};
}

/// Whether the sleep is over already.
bool slept(std::int64_t duration) {
  if (!attached()) {
    return false;
  }
  trace("sleep " + std::to_string(duration) + " us");
  const Locked state;
  if (state->fast) {
    state->slept += duration;
  }
  return state->fast;
}

bool isValid(const timespec& time) {
  return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < 1000000000;
}

}  // namespace

}  // namespace simulator

extern "C" {

int nanosleep(const timespec* request, timespec* remaining) {
  static const auto real = simulator::next(&nanosleep, "nanosleep");
  const std::int64_t duration = simulator::microseconds(*request);
  if (simulator::isValid(*request) && duration > simulator::longestUninterrupted &&
      simulator::faultIsOn(simulator::interruptedSleep)) {
    const timespec half = simulator::timespecOf(duration / 2);
    if (!simulator::slept(duration / 2)) {
      real(&half, nullptr);
    }
    if (remaining != nullptr) {
      *remaining = simulator::timespecOf(duration - duration / 2);
    }
    errno = EINTR;
    return -1;
  }
  if (simulator::isValid(*request) && simulator::slept(duration)) {
    return 0;
  }
  return real(request, remaining);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining) {
  static const auto real = simulator::next(&clock_nanosleep, "clock_nanosleep");
  std::int64_t start = 0;
  if (flags == TIMER_ABSTIME) {
    timespec time{};
    clock_gettime(clock, &time);
    start = simulator::microseconds(time);
  }
  const std::int64_t duration = simulator::microseconds(*request) - start;
  if (simulator::isValid(*request) && simulator::slept(duration > 0 ? duration : 0)) {
    return 0;
  }
  return real(clock, flags, request, remaining);
}

int usleep(useconds_t duration) {
  static const auto real = simulator::next(&usleep, "usleep");
  return simulator::slept(duration) ? 0 : real(duration);
}

unsigned int sleep(unsigned int seconds) {
  static const auto real = simulator::next(&sleep, "sleep");
  return simulator::slept(seconds * simulator::second) ? 0 : real(seconds);
}

}  // extern "C"
