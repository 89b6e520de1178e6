// SPDX-License-Identifier: MIT
// Clocks: in fast mode they include the time that sleeps have skipped. The host's own kernel knows
// nothing of that, so a wait until a time of such a clock is made to end by the host's clock.

#include <linux/futex.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "simulator/preload/Next.h"
#include "simulator/shared/Clock.h"
#include "simulator/shared/State.h"

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
  return real(condition, mutex, HostTime(time).get());
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* time) {
  static const auto real = next(&pthread_cond_clockwait, "pthread_cond_clockwait");
  return real(condition, mutex, clock, HostTime(time).get());
}

int pthread_mutex_timedlock(pthread_mutex_t* mutex, const timespec* time) noexcept {
  static const auto real = next(&pthread_mutex_timedlock, "pthread_mutex_timedlock");
  return real(mutex, HostTime(time).get());
}

int pthread_mutex_clocklock(pthread_mutex_t* mutex, clockid_t clock,
                            const timespec* time) noexcept {
  static const auto real = next(&pthread_mutex_clocklock, "pthread_mutex_clocklock");
  return real(mutex, clock, HostTime(time).get());
}

int pthread_timedjoin_np(pthread_t thread, void** result, const timespec* time) {
  static const auto real = next(&pthread_timedjoin_np, "pthread_timedjoin_np");
  return real(thread, result, HostTime(time).get());
}

int sem_timedwait(sem_t* semaphore, const timespec* time) {
  static const auto real = next(&sem_timedwait, "sem_timedwait");
  return real(semaphore, HostTime(time).get());
}

int sem_clockwait(sem_t* semaphore, clockid_t clock, const timespec* time) {
  static const auto real = next(&sem_clockwait, "sem_clockwait");
  return real(semaphore, clock, HostTime(time).get());
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
  const timespec* time = nullptr;
  std::memcpy(&time, &values[3], sizeof time);
  const bool untilTime = number == SYS_futex && (values[1] & FUTEX_CMD_MASK) == FUTEX_WAIT_BITSET;
  const HostTime host(untilTime ? time : nullptr);
  return real(number, values[0], values[1], values[2],
              untilTime ? reinterpret_cast<long>(host.get()) : values[3], values[4], values[5]);
}

}  // extern "C"
