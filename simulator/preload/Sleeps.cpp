// SPDX-License-Identifier: MIT
// Sleeps: in fast mode the virtual clock takes them. A wait for descriptors that names none is one.

#include <poll.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "simulator/preload/Next.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"
#include "simulator/shared/VirtualClock.h"

using simulator::next;

namespace {

// Durations are nanoseconds; the instrument's clock and the trace count microseconds.
constexpr std::int64_t second = 1000000000;
constexpr std::int64_t millisecond = 1000000;
constexpr std::int64_t microsecond = 1000;
constexpr std::int64_t longestUninterrupted = 10 * millisecond;

/// Who sleeps this long, ten years, waits for a signal: no clock need show that end.
constexpr std::int64_t forEver = 10 * 365 * 86400 * second;

std::int64_t nanoseconds(const timespec& time) {
  return std::min<std::int64_t>(time.tv_sec, forEver / second) * second + time.tv_nsec;
}

timespec timespecOf(std::int64_t duration) {
  return {static_cast<time_t>(duration / second), static_cast<long>(duration % second)};
}

bool isValid(const timespec& time) {
  return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < second;
}

std::int64_t roundedUp(std::int64_t duration, std::int64_t unit) {
  return (duration + unit - 1) / unit * unit;
}

std::int64_t monotonicTime() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * second + time.tv_nsec;
}

/// Sleeps on the virtual clock, rounded up to a unit on the instrument's. What is left of the sleep
/// when a signal handler has run, and 0 at its end; nothing where the host's clock is to take it.
std::optional<std::int64_t> sleepFor(std::int64_t duration, std::int64_t unit,
                                     const sigset_t* mask) {
  if (!simulator::attached()) {
    return std::nullopt;
  }
  simulator::requireRunning();
  if (!simulator::isVirtual() || duration >= forEver) {
    return std::nullopt;
  }
  const int error = errno;
  const std::int64_t start = monotonicTime();
  const bool slept =
      simulator::sleepVirtually(roundedUp(duration, unit) / microsecond, duration, mask);
  errno = error;
  return slept ? 0 : std::max<std::int64_t>(start + duration - monotonicTime(), 1);
}

/// The same, in the trace.
std::optional<std::int64_t> tracedSleep(std::int64_t duration, const sigset_t* mask = nullptr) {
  simulator::trace("sleep " + std::to_string(roundedUp(duration, microsecond) / microsecond) +
                   " us");
  return sleepFor(duration, microsecond, mask);
}

int fail(int error) {
  errno = error;
  return -1;
}

/// What nanosleep returns.
int resultOf(std::int64_t left, timespec* remaining) {
  if (left == 0) {
    return 0;
  }
  if (remaining != nullptr) {
    *remaining = timespecOf(left);
  }
  return fail(EINTR);
}

int waitResultOf(std::int64_t left) { return left == 0 ? 0 : fail(EINTR); }

bool hasDescriptors(int count, const fd_set* read, const fd_set* write, const fd_set* except) {
  return count > 0 && (read != nullptr || write != nullptr || except != nullptr);
}

}  // namespace

extern "C" {

int nanosleep(const timespec* request, timespec* remaining) {
  static const auto real = next(&nanosleep, "nanosleep");
  if (!isValid(*request)) {
    return real(request, remaining);
  }
  const std::int64_t duration = nanoseconds(*request);
  if (duration > longestUninterrupted && simulator::faultIsOn(simulator::interruptedSleep)) {
    const std::int64_t half = duration / 2 / microsecond * microsecond;
    const timespec hostHalf = timespecOf(half);
    const auto left = tracedSleep(half);
    if (!left) {
      real(&hostHalf, nullptr);
    }
    return resultOf(duration - half + left.value_or(0), remaining);
  }
  const auto left = tracedSleep(duration);
  return left ? resultOf(*left, remaining) : real(request, remaining);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining) {
  static const auto real = next(&clock_nanosleep, "clock_nanosleep");
  timespec time{};
  if (!isValid(*request) || clock_gettime(clock, &time) != 0) {
    return real(clock, flags, request, remaining);
  }
  if (flags != TIMER_ABSTIME) {
    const auto left = tracedSleep(nanoseconds(*request));
    return !left                             ? real(clock, flags, request, remaining)
           : resultOf(*left, remaining) == 0 ? 0
                                             : EINTR;
  }
  // How long depends on how fast the program runs: neither the trace nor the instrument's clock do.
  simulator::trace("sleep until a time");
  const std::int64_t duration =
      nanoseconds({request->tv_sec - time.tv_sec, 0}) + request->tv_nsec - time.tv_nsec;
  const auto left = sleepFor(std::max<std::int64_t>(duration, 0), millisecond, nullptr);
  return !left ? real(clock, flags, request, remaining) : *left == 0 ? 0 : EINTR;
}

int usleep(useconds_t duration) {
  static const auto real = next(&usleep, "usleep");
  const auto left = tracedSleep(duration * microsecond);
  return left ? waitResultOf(*left) : real(duration);
}

unsigned int sleep(unsigned int seconds) {
  static const auto real = next(&sleep, "sleep");
  const auto left = tracedSleep(seconds * second);
  return left ? static_cast<unsigned int>(*left / second) : real(seconds);
}

int poll(pollfd* descriptors, nfds_t count, int timeout) {
  static const auto real = next(&poll, "poll");
  const auto left = count == 0 && timeout >= 0 ? tracedSleep(timeout * millisecond) : std::nullopt;
  return left ? waitResultOf(*left) : real(descriptors, count, timeout);
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  static const auto real = next(&ppoll, "ppoll");
  const auto left = count == 0 && timeout != nullptr && isValid(*timeout)
                        ? tracedSleep(nanoseconds(*timeout), mask)
                        : std::nullopt;
  return left ? waitResultOf(*left) : real(descriptors, count, timeout, mask);
}

int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
  static const auto real = next(&select, "select");
  if (hasDescriptors(count, read, write, except) || timeout == nullptr || timeout->tv_sec < 0 ||
      timeout->tv_usec < 0) {
    return real(count, read, write, except, timeout);
  }
  const auto left = tracedSleep(nanoseconds({timeout->tv_sec, 0}) + timeout->tv_usec * microsecond);
  if (!left) {
    return real(count, read, write, except, timeout);
  }
  *timeout = {*left / second, *left % second / microsecond};
  return waitResultOf(*left);
}

int pselect(int count, fd_set* read, fd_set* write, fd_set* except, const timespec* timeout,
            const sigset_t* mask) {
  static const auto real = next(&pselect, "pselect");
  const bool sleeps =
      !hasDescriptors(count, read, write, except) && timeout != nullptr && isValid(*timeout);
  const auto left = sleeps ? tracedSleep(nanoseconds(*timeout), mask) : std::nullopt;
  return left ? waitResultOf(*left) : real(count, read, write, except, timeout, mask);
}

// What they become in programs built with -D_FORTIFY_SOURCE.
int __poll_chk(pollfd* descriptors, nfds_t count, int timeout, size_t /*room*/) {
  return poll(descriptors, count, timeout);
}

int __ppoll_chk(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask,
                size_t /*room*/) {
  return ppoll(descriptors, count, timeout, mask);
}

}  // extern "C"
