// SPDX-License-Identifier: MIT
// Threads and processes: each takes part in the virtual clock from when it is created, so that the
// clock does not move before it has begun.

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <new>

#include "simulator/preload/Next.h"
#include "simulator/shared/VirtualClock.h"

using simulator::next;

namespace {

struct Start {
  void* (*routine)(void*);
  void* argument;
  simulator::Participant* place;
};

/// Whether a sanitizer makes who creates a thread wait for it, and the thread call nothing before.
/// Then the thread cannot wait for its turn.
bool isSanitized() {
  static const bool sanitized = dlsym(RTLD_DEFAULT, "__asan_init") != nullptr ||
                                dlsym(RTLD_DEFAULT, "__tsan_init") != nullptr;
  return sanitized;
}

/// Lets a new thread take part that has begun. The kernel has its number in that of its clock.
void takePartAtOnce(pthread_t thread) {
  clockid_t clock{};
  if (simulator::isVirtual() && pthread_getcpuclockid(thread, &clock) == 0) {
    simulator::takePart(getpid(), ~(clock >> 3));
  }
}

void* begin(void* argument) {
  const auto* const given = static_cast<Start*>(argument);
  const Start start = *given;
  delete given;
  simulator::waitForFirstTurn(start.place);
  return start.routine(start.argument);
}

}  // namespace

extern "C" {

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                   void* argument) noexcept {
  static const auto real = next(&pthread_create, "pthread_create");
  if (!simulator::isVirtual() || isSanitized()) {
    simulator::takePart(getpid(), gettid());  // before the new one, whose sleep might end at once
    const int error = real(thread, attributes, routine, argument);
    if (error == 0) {
      takePartAtOnce(*thread);
    }
    return error;
  }
  simulator::Participant* const place = simulator::takePlace();
  if (place == nullptr) {
    return EAGAIN;
  }
  auto* const start = new (std::nothrow) Start{routine, argument, place};
  const int error = start == nullptr ? EAGAIN : real(thread, attributes, &begin, start);
  if (error != 0) {
    delete start;
    simulator::giveBack(place);
  }
  return error;
}

pid_t fork() noexcept {
  static const auto real = next(&fork, "fork");
  const pid_t child = real();
  if (child > 0) {
    simulator::takePart(child, child);
  }
  return child;
}

}  // extern "C"
