// SPDX-License-Identifier: MIT
#pragma once

#include <sys/types.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>

/// The clock of fast mode. Sleeps move it: once every thread that takes part sleeps, to the
/// earliest end of a sleep, and then one sleeper runs, and the next only after that one sleeps
/// again. So threads that sleep and access do so in the same order each time, in all programs on
/// the instrument.
///
/// A thread that waits for something else than a time would stop the clock. It is left out while it
/// does, after a short grace.
namespace simulator {

/// A thread that takes part. All zero is a free place.
struct Participant {
  pid_t process;
  pid_t thread;                       ///< zero until a new one has begun
  std::atomic<std::uint32_t> asleep;  ///< 1 or 0; sleepers wait for it as a futex

  bool waits;               ///< for something, until a time at most
  std::int64_t waitsUntil;  ///< of one that is awake: instrument's clock, microseconds

  // Of one that sleeps.
  std::int64_t wakeAt;        ///< instrument's clock, microseconds
  std::int64_t programTime;   ///< program's monotonic clock at the end, nanoseconds
  std::uint64_t order;        ///< who fell asleep earlier is woken earlier
  std::int64_t heldUntil;     ///< VirtualClock::held at which it waits for nobody any more
  std::int64_t hostDeadline;  ///< the same for the host's clock, microseconds

  // Of one that is awake, as the sleepers have seen it.
  bool leftOut;
  int grace;  ///< how many more looks may find it waiting before it is left out
  std::uint64_t ran;
};

constexpr std::size_t participantCount = 1024;

struct VirtualClock {
  std::atomic<std::int64_t> slept;    ///< the instrument's clock, microseconds
  std::atomic<std::int64_t> skipped;  ///< programs' clocks less the host's, nanoseconds
  std::uint64_t order;
  std::int64_t lookedAt;  ///< host's clock, microseconds
  std::int64_t heldAt;    ///< when that was seen last, on the host's clock, microseconds
  std::int64_t held;      ///< how long threads that are awake have held the clock, microseconds
  std::atomic<std::size_t> used;  ///< no place from here on has been taken yet
  Participant participants[participantCount];
};

/// Whether this process is on an instrument whose sleeps move a virtual clock.
bool isVirtual();

/// Lets a thread take part from now on, awake, if it does not yet. Nothing without a virtual clock.
void takePart(pid_t process, pid_t thread);

/// The same for the only thread of a program that begins, whatever threads the process had before.
void takePartAlone();

/// Takes a place for a thread that this one is about to create: its first turn comes after those of
/// all who sleep until now already. Null when all places are taken. Requires a virtual clock.
Participant* takePlace();

/// Gives back the place of a thread that has not come to be.
void giveBack(Participant* place);

/// The new thread begins: it waits for its turn.
void waitForFirstTurn(Participant* place);

/// Sleeps on the virtual clock: `duration`, microseconds, on the instrument's, and
/// `programDuration`, nanoseconds, on the program's. With `mask`, its signals are blocked meanwhile
/// instead of those that are. False when a signal handler has run before the end.
bool sleepVirtually(std::int64_t duration, std::int64_t programDuration, const sigset_t* mask);

/// While one exists, this thread waits for something until a time at most. The host's kernel knows
/// nothing of the clock, so the thread waits in slices, and asks after each whether the end has
/// come. Requires a virtual clock.
class TimedWait {
 public:
  enum class Source {
    threads,  ///< it waits for threads that take part: the clock moves to the end when all sleep
    outside,  ///< or for anything: the clock does not pass the end before it has come by itself
  };
  static constexpr std::int64_t slice = 5000000;  ///< nanoseconds

  /// `duration` is nanoseconds.
  TimedWait(Source source, std::int64_t duration);
  ~TimedWait();
  TimedWait(const TimedWait&) = delete;
  TimedWait& operator=(const TimedWait&) = delete;

  bool isOver();

  /// What is left on the program's clock, nanoseconds, if nothing moves it.
  std::int64_t left() const;

 private:
  Source source;
  std::int64_t end;  ///< program's monotonic clock, nanoseconds
  Participant* place;
};

}  // namespace simulator
