// SPDX-License-Identifier: MIT
#pragma once

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <mutex>

/// Locks a mutex that a fork waits for: the child of a program with several threads would find it
/// locked for ever by a thread that the child does not have.
template <std::mutex& mutex>
class ForkSafeLock : public std::lock_guard<std::mutex> {
 public:
  ForkSafeLock() : std::lock_guard<std::mutex>(mutex) { static_cast<void>(registered); }

  /// Says which thread has the lock while that makes calls to the outside, which take their time,
  /// so that a fork of another thread sleeps until they are done, and which might fork themselves,
  /// so that a fork of this thread does not wait for it. Nothing says so of the moment that a copy
  /// takes, which it would make a fifth longer.
  class Holder {
   public:
    Holder() { holder.store(pthread_self(), std::memory_order_relaxed); }
    ~Holder() { holder.store(pthread_t{}, std::memory_order_relaxed); }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;
  };

 private:
  // Who has locked the mutex without this class may be the thread that forks: that is not waited
  // for without end.
  static void lockForFork() {
    constexpr int mostTries = 1000000;  // half a second or so
    lockedForFork = mutex.try_lock();
    for (int tries = 0; !lockedForFork && tries < mostTries; ++tries) {
      const pthread_t by = holder;
      if (by == pthread_self()) {
        return;
      }
      if (by == pthread_t{}) {
        sched_yield();
        lockedForFork = mutex.try_lock();
      } else {
        mutex.lock();
        lockedForFork = true;
      }
    }
  }

  static void unlockAfterFork() {
    if (lockedForFork) {
      lockedForFork = false;
      mutex.unlock();
    }
  }

  static inline std::atomic<pthread_t> holder{};
  static inline thread_local bool lockedForFork = false;  // several threads may fork at once

  // Before any thread could take it.
  static inline const int registered =
      pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);
};
