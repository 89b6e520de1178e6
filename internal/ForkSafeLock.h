// SPDX-License-Identifier: MIT
#pragma once

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <mutex>

/// Locks a mutex that a fork waits for, from the first time on: the child of a program with several
/// threads would find it locked for ever by a thread that the child does not have. The thread that
/// has it may fork itself, as what it calls then might do.
///
/// A fork takes such locks in the reverse order of their registration. That is at their first use:
/// what a holder calls has been loaded, and has registered its own, before.
template <std::mutex& mutex>
class ForkSafeLock : public std::lock_guard<std::mutex> {
 public:
  ForkSafeLock() : std::lock_guard<std::mutex>(registered()) { holder = pthread_self(); }
  ~ForkSafeLock() { holder = pthread_t{}; }
  ForkSafeLock(const ForkSafeLock&) = delete;
  ForkSafeLock& operator=(const ForkSafeLock&) = delete;

 private:
  static std::mutex& registered() {
    static const int result = pthread_atfork(lockForFork, unlockAfterFork, unlockAfterFork);
    static_cast<void>(result);
    return mutex;
  }

  // Who has locked the mutex without this class may be the thread that forks: no long wait for it.
  static void lockForFork() {
    constexpr int mostTries = 1000;
    lockedForFork = mutex.try_lock();
    for (int tries = 0; !lockedForFork && tries < mostTries; lockedForFork = mutex.try_lock()) {
      const pthread_t by = holder;
      if (by == pthread_self()) {
        return;
      }
      tries += by == pthread_t{} ? 1 : 0;
      sched_yield();
    }
  }

  static void unlockAfterFork() {
    if (lockedForFork) {
      lockedForFork = false;
      mutex.unlock();
    }
  }

  static inline std::atomic<pthread_t> holder{};
  static inline bool lockedForFork = false;
};
