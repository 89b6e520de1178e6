// SPDX-License-Identifier: MIT
// Programs: every way to start one. It is put on the instrument whatever environment it is given,
// and refused where the dynamic linker could not do that.
//
// Nothing here allocates memory or takes a lock but the instrument's: a program is started by the
// child of one that may have threads, or in its very memory.

#include <alloca.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>

#include "simulator/preload/Next.h"
#include "simulator/shared/ProgramFile.h"
#include "simulator/shared/State.h"

using simulator::next;

namespace {

/// The variables that put a program on the instrument, as this one was given them.
constexpr const char* variables[] = {"LD_PRELOAD", simulator::rootVariable,
                                     simulator::stateVariable};
constexpr std::size_t variableCount = std::size(variables);
char settings[variableCount][PATH_MAX];  // "NAME=VALUE"; empty before there is an instrument

__attribute__((constructor)) void rememberEnvironment() {
  if (secure_getenv(simulator::stateVariable) != nullptr) {
    for (std::size_t index = 0; index < variableCount; ++index) {
      const char* const value = std::getenv(variables[index]);
      std::snprintf(settings[index], sizeof settings[index], "%s=%s", variables[index],
                    value == nullptr ? "" : value);
    }
  }
}

bool isOnInstrument() { return settings[0][0] != '\0'; }

/// The place of a variable in an environment, or that of its end.
char** findVariable(char** environment, const char* name) {
  const std::size_t length = std::strlen(name);
  while (*environment != nullptr &&
         (std::strncmp(*environment, name, length) != 0 || (*environment)[length] != '=')) {
    ++environment;
  }
  return environment;
}

const char* valueOf(const char* setting) { return std::strchr(setting, '=') + 1; }

int fail(int error) {
  errno = error;
  return -1;
}

/// Starts a program by `real` with an environment that puts it on the instrument: the given one and
/// the variables that it lacks. Other libraries that it preloads come after the instrument's.
///
/// Uses little of the stack, which may be a small one, and nothing else.
template <typename Program, typename Exec>
int become(Program program, const char* name, char* const* environment, Exec real) {
  if (!isOnInstrument()) {
    return real(environment);
  }
  if (const char* const reason = simulator::reasonAgainst(program)) {
    dprintf(STDERR_FILENO, "talvero-sim: %s %s: it would reach this machine's own hardware\n", name,
            reason);
    return fail(EACCES);
  }
  simulator::takePart(getpid(), gettid());  // before a parent in whose memory this is runs again
  std::size_t count = 0;
  while (environment != nullptr && environment[count] != nullptr) {
    ++count;
  }
  auto** const complete = static_cast<char**>(alloca((count + variableCount + 1) * sizeof(char*)));
  std::copy(environment, environment + count, complete);
  complete[count] = nullptr;
  for (std::size_t index = 0; index < variableCount; ++index) {
    char** const place = findVariable(complete, variables[index]);
    if (*place == nullptr) {
      place[1] = nullptr;
      *place = settings[index];
    }
  }
  char** const preload = findVariable(complete, variables[0]);
  const char* const given = *preload == nullptr ? "" : valueOf(*preload);
  if (std::strstr(given, valueOf(settings[0])) == nullptr) {
    const std::size_t size = std::strlen(settings[0]) + std::strlen(given) + 2;
    auto* const both = static_cast<char*>(alloca(size));
    std::snprintf(both, size, "%s:%s", settings[0], given);
    *preload = both;
  }
  return real(complete);
}

/// Starts a process by `real`, which takes part before this one goes on.
template <typename Spawn>
int startProcess(pid_t* process, Spawn real) {
  pid_t child = 0;
  const int result = real(&child);
  if (result == 0) {
    simulator::takePart(child, child);
    if (process != nullptr) {
      *process = child;
    }
  }
  return result;
}

/// The program that the search path has for a name; the name itself where there is none.
void search(const char* name, char (&program)[PATH_MAX]) {
  const char* path = std::getenv("PATH");
  path = path == nullptr ? "/bin:/usr/bin" : path;
  while (std::strchr(name, '/') == nullptr && path != nullptr) {
    const char* const end = strchrnul(path, ':');
    const int length = static_cast<int>(end - path);
    std::snprintf(program, sizeof program, "%.*s%s%s", length, path, length == 0 ? "" : "/", name);
    if (syscall(SYS_faccessat, AT_FDCWD, program, X_OK) == 0) {
      return;
    }
    path = *end == '\0' ? nullptr : end + 1;
  }
  std::snprintf(program, sizeof program, "%s", name);
}

/// Gives its variables back to a program whose environment the C library passes on by itself.
void completeOwnEnvironment() {
  for (std::size_t index = 0; isOnInstrument() && index < variableCount; ++index) {
    setenv(variables[index], valueOf(settings[index]), 0);
  }
  const char* const given = isOnInstrument() ? std::getenv(variables[0]) : nullptr;
  if (given != nullptr && std::strstr(given, valueOf(settings[0])) == nullptr) {
    setenv(variables[0], (valueOf(settings[0]) + std::string(":") + given).c_str(), 1);
  }
}

/// The size of the arguments of a call that lists them.
std::size_t sizeOfListed(const char* first, va_list& rest) {
  va_list counted;
  va_copy(counted, rest);
  std::size_t count = 1;
  for (const char* argument = first; argument != nullptr; ++count) {
    argument = va_arg(counted, const char*);
  }
  va_end(counted);
  return count * sizeof(char*);
}

void takeListed(const char* first, va_list& rest, char** arguments) {
  for (const char* argument = first; argument != nullptr; ++arguments) {
    *arguments = const_cast<char*>(argument);
    argument = va_arg(rest, const char*);
  }
  *arguments = nullptr;
}

}  // namespace

extern "C" {

int execve(const char* program, char* const arguments[], char* const environment[]) noexcept {
  static const auto real = next(&execve, "execve");
  return become(program, program, environment,
                [&](char* const* complete) { return real(program, arguments, complete); });
}

int execveat(int directory, const char* program, char* const arguments[], char* const environment[],
             int flags) noexcept {
  static const auto real = next(&execveat, "execveat");
  const bool isOpen = program[0] == '\0' && (flags & AT_EMPTY_PATH) != 0;
  const int fd = isOpen ? directory : openat(directory, program, O_RDONLY | O_CLOEXEC);
  const int result = become(
      fd, isOpen ? "the program" : program, environment,
      [&](char* const* complete) { return real(directory, program, arguments, complete, flags); });
  if (!isOpen && fd >= 0) {
    const int error = errno;
    close(fd);
    errno = error;
  }
  return result;
}

int fexecve(int program, char* const arguments[], char* const environment[]) noexcept {
  return execveat(program, "", arguments, environment, AT_EMPTY_PATH);
}

int execv(const char* program, char* const arguments[]) noexcept {
  return execve(program, arguments, environ);
}

int execvpe(const char* name, char* const arguments[], char* const environment[]) noexcept {
  static const auto real = next(&execvpe, "execvpe");
  static const auto realExecve = next(&execve, "execve");
  if (!isOnInstrument()) {
    return real(name, arguments, environment);
  }
  char program[PATH_MAX];
  search(name, program);
  return become(static_cast<const char*>(program), program, environment,
                [&](char* const* complete) {
                  realExecve(program, arguments, complete);
                  return real(name, arguments, complete);  // knows what else to try
                });
}

int execvp(const char* name, char* const arguments[]) noexcept {
  return execvpe(name, arguments, environ);
}

int execl(const char* program, const char* first, ...) noexcept {
  va_list rest;
  va_start(rest, first);
  auto** const arguments = static_cast<char**>(alloca(sizeOfListed(first, rest)));
  takeListed(first, rest, arguments);
  va_end(rest);
  return execv(program, arguments);
}

int execlp(const char* name, const char* first, ...) noexcept {
  va_list rest;
  va_start(rest, first);
  auto** const arguments = static_cast<char**>(alloca(sizeOfListed(first, rest)));
  takeListed(first, rest, arguments);
  va_end(rest);
  return execvp(name, arguments);
}

int execle(const char* program, const char* first, ...) noexcept {
  va_list rest;
  va_start(rest, first);
  auto** const arguments = static_cast<char**>(alloca(sizeOfListed(first, rest)));
  takeListed(first, rest, arguments);
  char* const* const environment = va_arg(rest, char* const*);
  va_end(rest);
  return execve(program, arguments, environment);
}

int posix_spawn(pid_t* process, const char* program, const posix_spawn_file_actions_t* actions,
                const posix_spawnattr_t* attributes, char* const arguments[],
                char* const environment[]) {
  static const auto real = next(&posix_spawn, "posix_spawn");
  const int result = become(program, program, environment, [&](char* const* complete) {
    return startProcess(process, [&](pid_t* child) {
      return real(child, program, actions, attributes, arguments, complete);
    });
  });
  return result < 0 ? errno : result;
}

int posix_spawnp(pid_t* process, const char* name, const posix_spawn_file_actions_t* actions,
                 const posix_spawnattr_t* attributes, char* const arguments[],
                 char* const environment[]) {
  static const auto real = next(&posix_spawnp, "posix_spawnp");
  char program[PATH_MAX];
  search(name, program);
  const int result =
      become(static_cast<const char*>(program), program, environment, [&](char* const* complete) {
        return startProcess(process, [&](pid_t* child) {
          return real(child, name, actions, attributes, arguments, complete);
        });
      });
  return result < 0 ? errno : result;
}

int system(const char* command) {
  static const auto real = next(&system, "system");
  completeOwnEnvironment();
  return real(command);
}

std::FILE* popen(const char* command, const char* mode) {
  static const auto real = next(&popen, "popen");
  completeOwnEnvironment();
  return real(command, mode);
}

// What it was in programs built with older C libraries.
std::FILE* _IO_popen(const char* command, const char* mode) { return popen(command, mode); }

}  // extern "C"
