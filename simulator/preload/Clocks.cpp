// SPDX-License-Identifier: MIT
// Clocks: in fast mode they include the time that sleeps have skipped. The host's own kernel knows
// nothing of that, so a wait until a time of such a clock is made to end by the host's clock, and
// no sleep skips its end.

#include <dlfcn.h>
#include <linux/futex.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "simulator/preload/Next.h"
#include "simulator/shared/Clock.h"
#include "simulator/shared/State.h"
#include "simulator/shared/VirtualClock.h"

using simulator::next;

namespace {

constexpr std::int64_t second = 1000000000;

/// What clocks show that has not passed on the host's, nanoseconds.
std::int64_t skipped() {
  return simulator::attached() ? simulator::state()->clock.skipped.load() : 0;
}

bool isCpuTime(clockid_t clock) {
  return clock < 0 || clock == CLOCK_PROCESS_CPUTIME_ID || clock == CLOCK_THREAD_CPUTIME_ID;
}

void add(timespec& time, std::int64_t duration) {
  const std::int64_t nanoseconds = time.tv_nsec + duration % second;
  const std::int64_t carry = nanoseconds < 0 ? -1 : nanoseconds / second;
  time.tv_sec += duration / second + carry;
  time.tv_nsec = nanoseconds - carry * second;
}

/// A time of the instrument's clock as the host's will read then. Null stays null.
class HostTime {
 public:
  explicit HostTime(const timespec* time) : given(time != nullptr) {
    if (given) {
      value = *time;
      add(value, -skipped());
      // The kernel refuses times before its clocks began.
      value = value.tv_sec < 0 ? timespec{} : value;
    }
  }
  const timespec* get() const { return given ? &value : nullptr; }

 private:
  bool given;
  timespec value{};
};

std::int64_t nanosecondsUntil(const timespec& time, clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return (std::int64_t{time.tv_sec} - now.tv_sec) * 1000000000 + time.tv_nsec - now.tv_nsec;
}

/// The clock of a wait that does not tell: the one that is nearer to the time.
clockid_t clockOf(const timespec* time) {
  return time != nullptr && std::abs(nanosecondsUntil(*time, CLOCK_MONOTONIC)) <
                                std::abs(nanosecondsUntil(*time, CLOCK_REALTIME))
             ? CLOCK_MONOTONIC
             : CLOCK_REALTIME;
}

/// The host's time in a slice.
timespec endOfSlice(clockid_t clock) {
  timespec time{};
  ::syscall(SYS_clock_gettime, clock, &time);
  add(time, simulator::TimedWait::slice / 1000);
  return time;
}

/// Waits for threads until a time of a clock by `wait`, which takes a time of the host's and
/// returns 0 or an errno value. When `mayHaveMissed` says so after a slice, the wait ends as if by
/// chance.
template <typename Wait, typename Missed>
int waitUntil(const timespec* time, clockid_t clock, Wait wait, Missed mayHaveMissed) {
  const std::int64_t duration = time == nullptr ? 0 : nanosecondsUntil(*time, clock);
  if (duration <= 0 || !simulator::isVirtual()) {
    return wait(HostTime(time).get());
  }
  simulator::TimedWait guard(simulator::TimedWait::Source::threads, duration);
  while (true) {
    const timespec end = endOfSlice(clock);
    const int error = wait(&end);
    if (error != ETIMEDOUT || guard.isOver()) {
      return error;
    }
    if (mayHaveMissed()) {
      return 0;
    }
  }
}

template <typename Wait>
int waitUntil(const timespec* time, clockid_t clock, Wait wait) {
  return waitUntil(time, clock, wait, [] { return false; });
}

/// The same for a function that returns -1 with errno.
template <typename Wait>
int waitWithErrno(const timespec* time, clockid_t clock, Wait wait) {
  const int error =
      waitUntil(time, clock, [&](const timespec* host) { return wait(host) == 0 ? 0 : errno; });
  if (error != 0) {
    errno = error;
    return -1;
  }
  return 0;
}

// How often condition variables have been signalled, by their addresses: who waits in slices would
// miss what comes between two of them.
std::atomic<unsigned int> signalCounts[256];

std::atomic<unsigned int>& signalsOf(const pthread_cond_t* condition) {
  return signalCounts[reinterpret_cast<std::uintptr_t>(condition) / sizeof(pthread_cond_t) %
                      std::size(signalCounts)];
}

/// Waits for a condition variable, which `wait` does with its mutex.
template <typename Wait>
int waitForCondition(const pthread_cond_t* condition, const timespec* time, clockid_t clock,
                     Wait wait) {
  const std::atomic<unsigned int>& signals = signalsOf(condition);
  const unsigned int before = signals;
  return waitUntil(time, clock, wait, [&] { return signals != before; });
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec* time) noexcept {
  static const auto real = next(&clock_gettime, "clock_gettime");
  const int result = real(clock, time);
  if (result == 0 && !isCpuTime(clock)) {
    add(*time, skipped());
  }
  return result;
}

int gettimeofday(timeval* time, void* zone) noexcept {
  static const auto real = next(&gettimeofday, "gettimeofday");
  const int result = real(time, zone);
  timespec now{time->tv_sec, time->tv_usec * 1000};
  add(now, skipped());
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return result;
}

time_t time(time_t* result) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != nullptr) {
    *result = now.tv_sec;
  }
  return now.tv_sec;
}

int timespec_get(timespec* time, int base) noexcept {
  return base == TIME_UTC && clock_gettime(CLOCK_REALTIME, time) == 0 ? base : 0;
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                           const timespec* time) {
  static const auto real = next(&pthread_cond_timedwait, "pthread_cond_timedwait");
  return waitForCondition(condition, time, clockOf(time),
                          [&](const timespec* host) { return real(condition, mutex, host); });
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* time) {
  static const auto real = next(&pthread_cond_clockwait, "pthread_cond_clockwait");
  return waitForCondition(condition, time, clock, [&](const timespec* host) {
    return real(condition, mutex, clock, host);
  });
}

int pthread_cond_signal(pthread_cond_t* condition) noexcept {
  static const auto real = next(&pthread_cond_signal, "pthread_cond_signal");
  ++signalsOf(condition);
  return real(condition);
}

int pthread_cond_broadcast(pthread_cond_t* condition) noexcept {
  static const auto real = next(&pthread_cond_broadcast, "pthread_cond_broadcast");
  ++signalsOf(condition);
  return real(condition);
}

int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* time) noexcept {
  static const auto real = next(&pthread_mutex_timedlock, "pthread_mutex_timedlock");
  return waitUntil(time, CLOCK_REALTIME, [&](const timespec* host) { return real(mutex, host); });
}

int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                            const timespec* time) noexcept {
  static const auto real = next(&pthread_mutex_clocklock, "pthread_mutex_clocklock");
  return waitUntil(time, clock, [&](const timespec* host) { return real(mutex, clock, host); });
}

int pthread_timedjoin_np(pthread_t thread, void** result, const timespec* time) {
  static const auto real = next(&pthread_timedjoin_np, "pthread_timedjoin_np");
  return waitUntil(time, CLOCK_REALTIME,
                   [&](const timespec* host) { return real(thread, result, host); });
}

int sem_timedwait(sem_t* semaphore, const timespec* time) {
  static const auto real = next(&sem_timedwait, "sem_timedwait");
  return waitWithErrno(time, CLOCK_REALTIME,
                       [&](const timespec* host) { return real(semaphore, host); });
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* time) {
  static const auto real = next(&sem_clockwait, "sem_clockwait");
  return waitWithErrno(time, clock,
                       [&](const timespec* host) { return real(semaphore, clock, host); });
}

int timerfd_settime(int timer, int flags, const itimerspec* setting, itimerspec* before) noexcept {
  static const auto real = next(&timerfd_settime, "timerfd_settime");
  itimerspec host = *setting;
  const bool runs = host.it_value.tv_sec != 0 || host.it_value.tv_nsec != 0;
  if ((flags & TFD_TIMER_ABSTIME) != 0 && runs) {
    host.it_value = *HostTime(&setting->it_value).get();
  }
  return real(timer, flags, &host, before);
}

// std::future waits for a time by a call of its own. Like the C library's, this takes six values
// whether the caller has given them or not, which AddressSanitizer would take for a mistake.
__attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
  static const auto real =
      reinterpret_cast<long (*)(long, ...) noexcept>(dlsym(RTLD_NEXT, "syscall"));
  long values[6];
  va_list arguments;
  va_start(arguments, number);
  for (long& value : values) {
    value = va_arg(arguments, long);
  }
  va_end(arguments);
  if (number != SYS_futex || (values[1] & FUTEX_CMD_MASK) != FUTEX_WAIT_BITSET) {
    return real(number, values[0], values[1], values[2], values[3], values[4], values[5]);
  }
  const timespec* time = nullptr;
  std::memcpy(&time, &values[3], sizeof time);
  const bool isWall = (values[1] & FUTEX_CLOCK_REALTIME) != 0;
  return waitWithErrno(time, isWall ? CLOCK_REALTIME : CLOCK_MONOTONIC, [&](const timespec* host) {
    return static_cast<int>(real(number, values[0], values[1], values[2],
                                 reinterpret_cast<long>(host), values[4], values[5]));
  });
}

}  // extern "C"
