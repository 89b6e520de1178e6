// SPDX-License-Identifier: MIT
// Preloaded into the instrument's programs on a machine whose kernel cannot start them: when such a
// program starts another one, it starts QEMU with it.

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr char qemu[] = "/usr/bin/qemu-aarch64-static";

bool isBelowRoot(const std::string& path) { return path.rfind(SYSROOT "/", 0) == 0; }

/// Programs of the system are those of the instrument's root directory, never this machine's.
std::string inRoot(const std::string& path) {
  const std::string there = SYSROOT + path;
  return path[0] == '/' && access(there.c_str(), F_OK) == 0 ? there : path;
}

int start(const std::string& program, char* const arguments[], char* const environment[]) {
  const std::string path = inRoot(program);
  if (access(path.c_str(), X_OK) != 0) {
    return -1;
  }
  std::vector<const char*> command = {qemu};
  if (isBelowRoot(path)) {
    command.push_back(SYSROOT "/lib/ld-linux-aarch64.so.1");  // not where the program names it
  }
  command.push_back(path.c_str());
  for (char* const* argument = arguments + 1; *argument != nullptr; ++argument) {
    command.push_back(*argument);
  }
  command.push_back(nullptr);
  static const auto real = reinterpret_cast<decltype(&execve)>(dlsym(RTLD_NEXT, "execve"));
  return real(qemu, const_cast<char* const*>(command.data()), environment);
}

}  // namespace

extern "C" {

int execve(const char* path, char* const arguments[], char* const environment[]) {
  return start(path, arguments, environment);
}

int execv(const char* path, char* const arguments[]) { return start(path, arguments, environ); }

int execvp(const char* name, char* const arguments[]) {
  const std::string program = name;
  if (program.find('/') != std::string::npos) {
    return execv(name, arguments);
  }
  const char* variable = getenv("PATH");
  std::istringstream path(variable == nullptr ? "/usr/bin" : variable);
  for (std::string directory; std::getline(path, directory, ':');) {
    execv((directory + "/" + program).c_str(), arguments);
  }
  return -1;
}

int system(const char* command) {
  const pid_t child = fork();
  if (child == 0) {
    const char* const arguments[] = {"sh", "-c", command, nullptr};
    execv("/bin/sh", const_cast<char* const*>(arguments));
    _exit(127);
  }
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

}  // extern "C"
