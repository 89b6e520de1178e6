// SPDX-License-Identifier: MIT
#pragma once

#include <mutex>
#include <optional>
#include <system_error>

#include "internal/ForkSafeLock.h"

inline std::mutex pciLock;

/// A thread's turn with libpciaccess, which has one system for the process, made anew by each
/// initialisation, and no lock. No operation fails for want of the lock.
class Turn {
 public:
  Turn() {
    try {
      taken.emplace();
    } catch (const std::system_error&) {
      taken.reset();
    }
  }

 private:
  struct Taken {
    ForkSafeLock<pciLock> lock;
    ForkSafeLock<pciLock>::Holder holder;
  };
  std::optional<Taken> taken;
};
