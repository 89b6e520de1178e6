// SPDX-License-Identifier: MIT
// Sleeps: in fast mode the virtual clock takes them. A wait for descriptors that names none is one.

#include <poll.h>
#include <sys/epoll.h>
#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "simulator/parts/Changes.h"
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
constexpr std::int64_t forEver = std::int64_t{10} * 365 * 86400 * second;

std::int64_t nanoseconds(const timespec& time) {
  return std::min<std::int64_t>(time.tv_sec, forEver / second) * second + time.tv_nsec;
}

timespec timespecOf(std::int64_t duration) {
  return {static_cast<time_t>(duration / second), static_cast<long>(duration % second)};
}

bool isValid(const timespec& time) {
  return time.tv_sec >= 0 && time.tv_nsec >= 0 && time.tv_nsec < second;
}

/// Microseconds, in full milliseconds.
std::int64_t roundedUp(std::int64_t duration) {
  return (duration + millisecond - 1) / millisecond * (millisecond / microsecond);
}

std::int64_t monotonicTime() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return std::int64_t{time.tv_sec} * second + time.tv_nsec;
}

/// Sleeps on the virtual clock, `onInstrument` microseconds on the instrument's. What is left of
/// the sleep when a signal handler has run, and 0 at its end; nothing where the host's clock is to
/// take it.
std::optional<std::int64_t> sleepFor(std::int64_t duration, std::int64_t onInstrument,
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
  const bool slept = simulator::sleepVirtually(onInstrument, duration, mask);
  simulator::keepUp();
  errno = error;
  return slept ? 0 : std::max<std::int64_t>(start + duration - monotonicTime(), 1);
}

std::string sleepText(std::int64_t duration) {
  return "sleep " + std::to_string(duration / microsecond) + " us";
}

/// The same, in the trace; interrupted half-way where sleeps fail.
std::optional<std::int64_t> tracedSleep(std::int64_t duration, const sigset_t* mask = nullptr,
                                        bool interrupted = false) {
  static const auto real = next(&nanosleep, "nanosleep");
  if (simulator::admit(sleepText(duration)) == 0 && !interrupted) {
    simulator::trace(sleepText(duration));
    return sleepFor(duration, duration / microsecond, mask);
  }
  const std::int64_t half = duration / 2 / microsecond * microsecond;
  simulator::trace(sleepText(half));
  const auto left = sleepFor(half, half / microsecond, mask);
  if (!left) {
    const timespec time = timespecOf(half);
    real(&time, nullptr);
  }
  return duration - half + left.value_or(0);
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

/// Waits for descriptors by `wait`, which takes nanoseconds, negative for no end, and returns 0 at
/// theirs.
template <typename Wait>
int waitFor(std::int64_t duration, Wait wait) {
  if (duration <= 0 || !simulator::isVirtual()) {
    return wait(duration);
  }
  simulator::TimedWait guard(simulator::TimedWait::Source::outside, duration);
  while (true) {
    const int result = wait(std::min(simulator::TimedWait::slice, guard.left()));
    if (result != 0 || guard.isOver()) {
      return result;
    }
  }
}

int millisecondsOf(std::int64_t duration) {
  return duration < 0 ? -1 : static_cast<int>((duration + millisecond - 1) / millisecond);
}

std::int64_t durationOf(const timespec* time) {
  return time == nullptr || !isValid(*time) ? -1 : nanoseconds(*time);
}

/// The same with sets of descriptors, of which each wait leaves those that it has found.
template <typename Wait>
int waitForSets(std::int64_t duration, std::array<fd_set*, 3> sets, Wait wait) {
  fd_set wanted[3];
  for (std::size_t index = 0; index < sets.size(); ++index) {
    wanted[index] = sets[index] == nullptr ? fd_set{} : *sets[index];
  }
  return waitFor(duration, [&](std::int64_t time) {
    for (std::size_t index = 0; index < sets.size(); ++index) {
      if (sets[index] != nullptr) {
        *sets[index] = wanted[index];
      }
    }
    return wait(time);
  });
}

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
  const bool interrupted =
      duration > longestUninterrupted && simulator::faultIsOn(simulator::interruptedSleep);
  const auto left = tracedSleep(duration, nullptr, interrupted);
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
  const char* const text = "sleep until a time";
  const int error = simulator::admit(text);
  simulator::trace(text);
  if (error != 0) {
    return EINTR;
  }
  const std::int64_t duration = std::max<std::int64_t>(
      nanoseconds({request->tv_sec - time.tv_sec, 0}) + request->tv_nsec - time.tv_nsec, 0);
  const auto left = sleepFor(duration, roundedUp(duration), nullptr);
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
  return left ? waitResultOf(*left) : waitFor(timeout * millisecond, [&](std::int64_t time) {
    return real(descriptors, count, millisecondsOf(time));
  });
}

int ppoll(pollfd* descriptors, nfds_t count, const timespec* timeout, const sigset_t* mask) {
  static const auto real = next(&ppoll, "ppoll");
  const auto left = count == 0 && timeout != nullptr && isValid(*timeout)
                        ? tracedSleep(nanoseconds(*timeout), mask)
                        : std::nullopt;
  return left ? waitResultOf(*left) : waitFor(durationOf(timeout), [&](std::int64_t time) {
    const timespec end = timespecOf(time);
    return real(descriptors, count, time < 0 ? timeout : &end, mask);
  });
}

int select(int count, fd_set* read, fd_set* write, fd_set* except, timeval* timeout) {
  static const auto real = next(&select, "select");
  const timespec time =
      timeout == nullptr ? timespec{-1, 0} : timespec{timeout->tv_sec, timeout->tv_usec * 1000};
  if (hasDescriptors(count, read, write, except) || !isValid(time)) {
    return waitForSets(durationOf(&time), {read, write, except}, [&](std::int64_t left) {
      if (left >= 0) {
        *timeout = {left / second, left % second / microsecond};
      }
      return real(count, read, write, except, timeout);
    });
  }
  const auto left = tracedSleep(nanoseconds(time));
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
  return left ? waitResultOf(*left)
              : waitForSets(durationOf(timeout), {read, write, except}, [&](std::int64_t time) {
                  const timespec end = timespecOf(time);
                  return real(count, read, write, except, time < 0 ? timeout : &end, mask);
                });
}

int epoll_wait(int epoll, epoll_event* events, int count, int timeout) {
  static const auto real = next(&epoll_wait, "epoll_wait");
  return waitFor(timeout * millisecond, [&](std::int64_t time) {
    return real(epoll, events, count, millisecondsOf(time));
  });
}

int epoll_pwait(int epoll, epoll_event* events, int count, int timeout, const sigset_t* mask) {
  static const auto real = next(&epoll_pwait, "epoll_pwait");
  return waitFor(timeout * millisecond, [&](std::int64_t time) {
    return real(epoll, events, count, millisecondsOf(time), mask);
  });
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
