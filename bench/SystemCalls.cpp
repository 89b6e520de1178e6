// SPDX-License-Identifier: MIT
#include "bench/SystemCalls.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace {

[[noreturn]] void makeTraced(Call call) {
  if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) {
    _exit(1);
  }
  kill(getpid(), SIGSTOP);
  call();
  _exit(0);
}

bool isStopped(pid_t child) {
  int status = 0;
  return waitpid(child, &status, 0) == child && WIFSTOPPED(status);
}

}  // namespace

std::optional<long> systemCalls(Call call) {
  const pid_t child = fork();
  if (child < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
  if (child == 0) {
    makeTraced(call);
  }
  if (!isStopped(child)) {
    return std::nullopt;
  }
  long stops = 0;
  while (ptrace(PTRACE_SYSCALL, child, nullptr, nullptr) == 0 && isStopped(child)) {
    ++stops;
  }
  // A system call stops at its entry and at its exit; the child's last one, which ends it, has no
  // exit.
  return stops / 2;
}
