// SPDX-License-Identifier: MIT
#include "simulator/shared/VirtualClock.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "simulator/shared/Clock.h"
#include "simulator/shared/State.h"

namespace simulator {

namespace {

constexpr std::int64_t millisecond = 1000;

/// Sleepers look at those who are awake this often, all sleepers together.
constexpr std::int64_t lookPeriod = millisecond;

/// Where many sleep, each does so more rarely.
constexpr std::int64_t sleepersOfPeriod = 8;

/// So many looks find a thread waiting until it is left out: at first, and when it waits again
/// without having slept.
constexpr int firstGrace = 10;
constexpr int nextGrace = 2;

/// Threads that are awake hold a sleeper as long as it would sleep in real time, so that one that
/// watches the clock until it moves cannot stop it; but at least so long, since what a thread does
/// between two sleeps must not depend on how fast it runs.
constexpr std::int64_t shortestHold = 50 * millisecond;

/// Time in which the machine runs none of them does not count, up to this.
constexpr std::int64_t longestDelay = 1000 * millisecond;

/// The kernel counts the time of a thread that runs this often, or more often.
constexpr std::int64_t longestTick = 10 * millisecond;

Participant* begin(VirtualClock& clock) { return clock.participants; }

Participant* end(VirtualClock& clock) { return clock.participants + clock.used; }

bool isFree(const Participant& place) { return place.process == 0; }

void release(Participant& place) {
  place.process = 0;
  place.asleep = 0;
}

/// What the kernel says of a thread.
struct Activity {
  char state;         ///< as in /proc: R runs or could run
  long threads;       ///< of its process
  std::uint64_t ran;  ///< grows whenever it runs
};

/// Reads the start of a file of a thread, from the kernel itself: the names are the host's.
bool readOf(const Participant& thread, const char* file, char (&text)[512]) {
  const pid_t task = thread.thread != 0 ? thread.thread : thread.process;
  char name[64];
  std::snprintf(name, sizeof name, "/proc/%d/task/%d/%s", thread.process, task, file);
  const long fd = syscall(SYS_openat, AT_FDCWD, name, O_RDONLY | O_CLOEXEC);
  const long length = fd < 0 ? -1 : syscall(SYS_read, fd, text, sizeof text - 1);
  syscall(SYS_close, fd);
  text[std::max(length, 0L)] = '\0';
  return length > 0;
}

/// Whether a process is still ending: its first thread has ended, and one that takes no part in the
/// clock, as an emulator has them, has not. Who waits for the process is told only then.
bool isStillEnding(VirtualClock& clock, const Participant& thread, const Activity& activity) {
  return activity.state == 'Z' && activity.threads > 1 &&
         std::none_of(begin(clock), end(clock), [&](const Participant& other) {
           return &other != &thread && other.process == thread.process;
         });
}

/// Nothing for a thread that is gone or has ended.
std::optional<Activity> activityOf(VirtualClock& clock, const Participant& thread) {
  char text[512];
  const char* const name = readOf(thread, "stat", text) ? std::strrchr(text, ')') : nullptr;
  Activity activity{};
  if (name == nullptr ||
      std::sscanf(name, ") %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %ld",
                  &activity.state, &activity.threads) != 2) {
    return std::nullopt;
  }
  const bool hasEnded = activity.state == 'Z' || activity.state == 'X';
  if (hasEnded && !isStillEnding(clock, thread, activity)) {
    return std::nullopt;
  }
  if (hasEnded || thread.thread == 0) {
    activity.state = 'R';
  }
  // How long it has run is told late, and how often it has begun to at once: one that runs already
  // may have the state of one that waits until it has taken what it has waited for.
  std::uint64_t duration = 0;
  std::uint64_t times = 0;
  if (readOf(thread, "schedstat", text) &&
      std::sscanf(text, "%" SCNu64 " %*u %" SCNu64, &duration, &times) == 2) {
    activity.ran = duration + times;
  }
  return activity;
}

/// A thread that is traced is about to go on: a debugger has stopped it, or, at the end of its
/// program, a sanitizer.
bool isWaiting(const Activity& activity) { return std::strchr("RDt", activity.state) == nullptr; }

/// Whether a thread that is left out has run since, or is about to: then it takes part again.
bool isBack(VirtualClock& clock, Participant& thread) {
  const auto activity = activityOf(clock, thread);
  if (!activity) {
    release(thread);
    return false;
  }
  thread.leftOut = isWaiting(*activity) && activity->ran == thread.ran;
  thread.grace = nextGrace;
  thread.ran = activity->ran;
  return !thread.leftOut;
}

/// Looks at a thread that is awake. Returns whether it is the thread that holds the clock, and not
/// the machine, which does not run it.
bool lookAt(VirtualClock& clock, Participant& thread) {
  const auto activity = activityOf(clock, thread);
  if (!activity && thread.grace > 1) {
    thread.grace = 1;  // who waits for its end may not be awake yet
    return false;
  }
  if (!activity) {
    release(thread);
    return false;
  }
  const bool hasRun = activity->ran != thread.ran;
  thread.ran = activity->ran;
  if (isWaiting(*activity) && !hasRun) {
    --thread.grace;
    thread.leftOut = thread.grace == 0;
  }
  return hasRun || activity->state != 'R';
}

bool isAwake(const Participant& place) { return !isFree(place) && place.asleep == 0; }

bool holdsClock(const Participant& place) { return isAwake(place) && !place.leftOut; }

/// Looks at those who are awake, if it is time to.
bool look(VirtualClock& clock) {
  const std::int64_t time = hostTime();
  if (time - clock.lookedAt < lookPeriod) {
    return false;
  }
  clock.lookedAt = time;
  bool held = false;
  for (Participant* place = begin(clock); place != end(clock); ++place) {
    held = (holdsClock(*place) && lookAt(clock, *place)) || held;
  }
  if (held) {
    clock.held += std::min(time - clock.heldAt, longestTick);
    clock.heldAt = time;
  }
  return true;
}

void stayAwake(Participant& thread) {
  thread.waits = false;
  thread.asleep = 0;
  thread.leftOut = false;
  thread.grace = firstGrace;
  thread.ran = 0;
}

/// The sleeper that is to be woken next; null without one.
Participant* nextSleeper(VirtualClock& clock) {
  Participant* next = nullptr;
  for (Participant* place = begin(clock); place != end(clock); ++place) {
    if (isFree(*place) || place->asleep == 0) {
      continue;
    }
    if (next == nullptr || place->wakeAt < next->wakeAt ||
        (place->wakeAt == next->wakeAt && place->order < next->order)) {
      next = place;
    }
  }
  return next;
}

/// Moves the clock to the end of a sleep.
void wake(VirtualClock& clock, Participant& sleeper, const Participant& self) {
  clock.slept = std::max(clock.slept.load(), sleeper.wakeAt);
  clock.skipped = std::max(clock.skipped.load(), sleeper.programTime - hostNanoseconds());
  stayAwake(sleeper);
  if (&sleeper != &self) {
    syscall(SYS_futex, &sleeper.asleep, FUTEX_WAKE, 1, nullptr, nullptr, 0);
  }
}

/// Whether a sleeper that waits for something may just have got it.
bool hasRun(VirtualClock& clock, Participant& waiting) {
  const auto activity = activityOf(clock, waiting);
  if (!activity) {
    release(waiting);
    return false;
  }
  const bool ran = activity->ran != waiting.ran || !isWaiting(*activity);
  waiting.ran = activity->ran;
  return ran;
}

/// Whether the next sleeper would sleep on after the end of another thread's wait.
bool passesWait(VirtualClock& clock) {
  const std::int64_t time = nextSleeper(clock)->wakeAt;
  return std::any_of(begin(clock), end(clock), [&](const Participant& place) {
    return isAwake(place) && place.waits && place.waitsUntil < time;
  });
}

/// Wakes the next sleeper if nobody holds the clock.
void advance(VirtualClock& clock, const Participant& self) {
  if (std::none_of(begin(clock), end(clock), holdsClock) &&
      std::none_of(begin(clock), end(clock),
                   [&](Participant& place) { return isAwake(place) && isBack(clock, place); }) &&
      std::none_of(begin(clock), end(clock),
                   [&](Participant& place) {
                     return &place != &self && place.asleep != 0 && place.waits &&
                            hasRun(clock, place);
                   }) &&
      !passesWait(clock)) {
    wake(clock, *nextSleeper(clock), self);
  }
}

bool isHeldTooLong(const VirtualClock& clock, const Participant& self) {
  return clock.held >= self.heldUntil || hostTime() >= self.hostDeadline;
}

/// Wakes the next sleeper, if it is time, for all sleepers. Requires one.
void serve(VirtualClock& clock, const Participant& self) {
  advance(clock, self);
  if (self.asleep != 0 && look(clock)) {
    advance(clock, self);
  }
  while (self.asleep != 0 && isHeldTooLong(clock, self) && !passesWait(clock)) {
    wake(clock, *nextSleeper(clock), self);
  }
}

/// A free place; that after the last one when all are taken.
Participant* freePlace(VirtualClock& clock) {
  if (clock.used < participantCount) {
    Participant* const place = std::find_if(begin(clock), end(clock), isFree);
    clock.used += place == end(clock) ? 1 : 0;
    return place;
  }
  return std::find_if(begin(clock), end(clock), [&](Participant& place) {
    if (!isFree(place) && !activityOf(clock, place)) {
      release(place);
    }
    return isFree(place);
  });
}

/// Null when all places are taken.
Participant* newPlace(VirtualClock& clock, pid_t process, pid_t thread) {
  Participant* const place = freePlace(clock);
  if (place == clock.participants + participantCount) {
    return nullptr;
  }
  stayAwake(*place);
  place->process = process;
  place->thread = thread;
  return place;
}

Participant* placeOf(VirtualClock& clock, pid_t process, pid_t thread) {
  Participant* const place = std::find_if(begin(clock), end(clock), [&](const Participant& other) {
    return other.process == process && other.thread == thread;
  });
  return place != end(clock) ? place : newPlace(clock, process, thread);
}

void fallAsleep(VirtualClock& clock, Participant& self, std::int64_t duration,
                std::int64_t programDuration) {
  const std::int64_t time = hostNanoseconds();
  const std::int64_t hold = std::max(programDuration / 1000, shortestHold);
  self.wakeAt = clock.slept + duration;
  self.programTime = time + clock.skipped + programDuration;
  self.order = clock.order++;
  self.heldUntil = clock.held + hold;
  self.hostDeadline = time / 1000 + hold + longestDelay;
  self.asleep = 1;
}

/// Puts this thread to sleep, and wakes it at once if it is the only one.
Participant& sleeperOfThisThread(std::int64_t duration, std::int64_t programDuration) {
  const Locked state;
  Participant* const self = placeOf(state->clock, getpid(), gettid());
  if (self == nullptr) {
    endProcess("more than " + std::to_string(participantCount) + " threads on the instrument");
  }
  fallAsleep(state->clock, *self, duration, programDuration);
  serve(state->clock, *self);
  return *self;
}

/// Signals wait while one exists, so that none is missed between two looks.
class SignalsWait {
 public:
  SignalsWait() {
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
  }
  ~SignalsWait() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
  SignalsWait(const SignalsWait&) = delete;
  SignalsWait& operator=(const SignalsWait&) = delete;

  /// Whether a handler runs as soon as only `signals` are blocked.
  static bool handlerIsDue(const sigset_t& signals) {
    sigset_t pending;
    sigpending(&pending);
    for (int signal = 1; sigisemptyset(&pending) == 0 && signal < NSIG; ++signal) {
      struct sigaction action {};
      if (sigismember(&pending, signal) == 1 && sigismember(&signals, signal) == 0 &&
          sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_DFL &&
          action.sa_handler != SIG_IGN) {
        return true;
      }
    }
    return false;
  }

  /// Waits for the end of a sleep, until it is time to look at most, with only `signals` blocked.
  /// Returns whether a handler has run.
  bool waitWith(const sigset_t& signals, const Participant& self) const {
    const bool due = handlerIsDue(signals);
    const auto sleepers = static_cast<std::int64_t>(state()->clock.used);
    const std::int64_t period = due ? 0 : lookPeriod * (1 + sleepers / sleepersOfPeriod);
    const timespec timeout{0, period * 1000};
    // By no longer way: what a handler does in between would not end the wait.
    syscall(SYS_rt_sigprocmask, SIG_SETMASK, &signals, nullptr, NSIG / 8);
    const long result = syscall(SYS_futex, &self.asleep, FUTEX_WAIT, 1, &timeout, nullptr, 0);
    const bool interrupted = due || (result != 0 && errno == EINTR);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
    return interrupted;
  }

  sigset_t before;

 private:
  sigset_t all;
};

/// Wakes a sleeper that leaves before its end: a handler has run, or the thread is cancelled.
class AwakeAfter {
 public:
  explicit AwakeAfter(Participant& sleeper) : self(sleeper) {}
  ~AwakeAfter() {
    if (self.asleep != 0) {
      const Locked state;
      stayAwake(self);
    }
  }
  AwakeAfter(const AwakeAfter&) = delete;
  AwakeAfter& operator=(const AwakeAfter&) = delete;

 private:
  Participant& self;
};

}  // namespace

bool isVirtual() { return attached() && state()->fast && !state()->ended; }

void takePart(pid_t process, pid_t thread) {
  if (isVirtual()) {
    placeOf(Locked()->clock, process, thread);
  }
}

void takePartAlone() {
  if (!isVirtual()) {
    return;
  }
  const Locked state;
  const pid_t process = getpid();
  for (Participant* place = begin(state->clock); place != end(state->clock); ++place) {
    if (place->process == process) {
      release(*place);
    }
  }
  newPlace(state->clock, process, process);
}

Participant* takePlace() {
  const Locked state;
  const pid_t process = getpid();
  placeOf(state->clock, process, gettid());
  Participant* const place = newPlace(state->clock, process, 0);
  if (place != nullptr) {
    fallAsleep(state->clock, *place, 0, 0);
  }
  return place;
}

void giveBack(Participant* place) {
  const Locked state;
  release(*place);
}

void waitForFirstTurn(Participant* place) {
  const SignalsWait signals;
  {
    const Locked state;
    place->thread = gettid();
  }
  while (place->asleep != 0) {
    signals.waitWith(signals.before, *place);
    serve(Locked()->clock, *place);
  }
}

TimedWait::TimedWait(Source waitsFor, std::int64_t duration) : source(waitsFor) {
  const Locked state;
  end = hostNanoseconds() + state->clock.skipped + duration;
  place = placeOf(state->clock, getpid(), gettid());
  if (place == nullptr) {
    endProcess("more than " + std::to_string(participantCount) + " threads on the instrument");
  }
  if (source == Source::threads) {
    fallAsleep(state->clock, *place, duration / 1000, duration);
  }
  place->waitsUntil = state->clock.slept + duration / 1000;
  place->ran = 0;
  place->waits = true;
}

TimedWait::~TimedWait() {
  if (attached()) {
    const int error = errno;
    const Locked state;
    stayAwake(*place);
    errno = error;
  }
}

bool TimedWait::isOver() {
  if (!isVirtual()) {
    return left() == 0;
  }
  const Locked state;
  if (source == Source::threads) {
    if (place->asleep != 0) {
      serve(state->clock, *place);
    }
    return place->asleep == 0;
  }
  const bool over = hostNanoseconds() + state->clock.skipped >= end;
  if (over) {
    state->clock.slept = std::max(state->clock.slept.load(), place->waitsUntil);
  }
  return over;
}

std::int64_t TimedWait::left() const {
  const std::int64_t skipped = attached() ? state()->clock.skipped.load() : 0;
  return std::max<std::int64_t>(end - hostNanoseconds() - skipped, 0);
}

bool sleepVirtually(std::int64_t duration, std::int64_t programDuration, const sigset_t* mask) {
  pthread_testcancel();
  const SignalsWait signals;
  const sigset_t& blocked = mask == nullptr ? signals.before : *mask;
  if (SignalsWait::handlerIsDue(blocked)) {
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);  // it runs here
    return false;
  }
  Participant& self = sleeperOfThisThread(duration, programDuration);
  const AwakeAfter awake(self);
  while (self.asleep != 0) {
    if (signals.waitWith(blocked, self)) {
      return self.asleep == 0;
    }
    pthread_testcancel();
    serve(Locked()->clock, self);
  }
  return true;
}

}  // namespace simulator
