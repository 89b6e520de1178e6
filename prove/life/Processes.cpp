// SPDX-License-Identifier: MIT
#include "prove/life/Processes.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

Directory::Directory() {
  std::string name = (fs::temp_directory_path() / "talvero-life.XXXXXX").string();
  if (mkdtemp(name.data()) == nullptr) {
    throw std::system_error(errno, std::generic_category(), name);
  }
  path = name;
}

Directory::~Directory() {
  std::error_code ignored;
  fs::remove_all(path, ignored);
}

Process::Process(const std::string& command) : process(fork()) {
  if (process != 0) {
    setpgid(process, process);
    return;
  }
  setpgid(0, 0);
  const int truncated = O_WRONLY | O_CREAT | O_TRUNC;
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), STDIN_FILENO);
  dup2(open((directory.path / "output").c_str(), truncated | O_CLOEXEC, 0600), STDOUT_FILENO);
  dup2(open((directory.path / "errors").c_str(), truncated | O_CLOEXEC, 0600), STDERR_FILENO);
  execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
  _exit(127);
}

Process::~Process() {
  kill(-process, SIGKILL);
  waitpid(process, nullptr, 0);
}

Outcome Process::outcome(std::chrono::seconds time) {
  const auto deadline = std::chrono::steady_clock::now() + time;
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  const int status = info.si_pid == 0             ? -1
                     : info.si_code == CLD_EXITED ? info.si_status
                                                  : 128 + info.si_status;
  return {status, contentOf(directory.path / "output"), contentOf(directory.path / "errors")};
}

Outcome run(const std::string& command) { return Process(command).outcome(); }

std::vector<pid_t> processesWith(const std::string& variable) {
  std::vector<pid_t> found;
  for (const std::string& name : namesIn("/proc")) {
    const std::string environment = std::string(1, '\0') + contentOf("/proc/" + name + "/environ");
    if (environment.find('\0' + variable + '\0') != std::string::npos) {
      found.push_back(std::atoi(name.c_str()));
    }
  }
  return found;
}

std::string contentOf(const fs::path& file) {
  std::ostringstream content;
  content << std::ifstream(file, std::ios::binary).rdbuf();
  return content.str();
}

std::vector<std::string> namesIn(const fs::path& directory) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, ignored)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string quoted(const std::string& word) { return "'" + word + "'"; }
