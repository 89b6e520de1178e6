// SPDX-License-Identifier: MIT
#pragma once

#include <pthread.h>

#include <mutex>

/// Locks a mutex that a fork waits for, from the first time on: the child of a program with several
/// threads would find it locked for ever by a thread that the child does not have.
///
/// A fork takes such locks in the reverse order of their registration. That is at their first use:
/// what a holder calls has been loaded, and has registered its own, before.
template <std::mutex& mutex>
std::lock_guard<std::mutex> lockAcrossForks() {
  static const int registered =
      pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); });
  static_cast<void>(registered);
  return std::lock_guard<std::mutex>(mutex);
}
