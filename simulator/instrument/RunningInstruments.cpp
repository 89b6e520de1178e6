// SPDX-License-Identifier: MIT
#include "simulator/instrument/RunningInstruments.h"

#include <fcntl.h>
#include <glib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "simulator/parts/Changes.h"
#include "simulator/shared/State.h"

namespace simulator {

namespace {

namespace fs = std::filesystem;

/// Tells the programs that have outlived it of an instrument's end.
void tellPrograms(const fs::path& stateFile) {
  const int fd = ::open(stateFile.c_str(), O_WRONLY | O_CLOEXEC);
  const bool ended = true;
  (void)!pwrite(fd, &ended, sizeof ended, offsetof(State, ended));
  ::close(fd);
}

/// Whether a directory is an instrument's of this user, to which nobody else can write. Others may
/// make whatever they like where temporary files are, links and directories of such names too.
bool isOwn(const fs::path& directory) {
  struct stat status {};
  return directory.filename().string().rfind(directoryStart, 0) == 0 &&
         lstat(directory.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid() && (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

/// Calls `running` or `abandoned` with the directory of each of this user's instruments. One
/// without a lock is of a process that was killed before it made that, or late in removing it:
/// abandoned if O_CREAT creates that lock.
template <typename Running, typename Abandoned>
void forEachInstrument(Running running, Abandoned abandoned, int creates = 0) {
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(temporaryDirectory(), ignored)) {
    if (!isOwn(entry.path())) {
      continue;
    }
    const int fd = ::open((entry.path() / lockName).c_str(), O_RDWR | O_CLOEXEC | creates, 0600);
    if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) == 0) {
      abandoned(entry.path());
    } else if (fd >= 0) {
      running(entry.path());
    }
    ::close(fd);
  }
}

/// The state file that a process was started on an instrument with; empty for none.
std::string stateFileOf(const std::string& process) {
  std::ifstream environment("/proc/" + process + "/environ");
  const std::string start = std::string(stateVariable) + "=";
  for (std::string variable; std::getline(environment, variable, '\0');) {
    if (variable.compare(0, start.size(), start) == 0) {
      return variable.substr(start.size());
    }
  }
  return "";
}

struct RunningInstrument {
  fs::path directory;
  std::string process;
  std::string name;
};

std::vector<RunningInstrument> runningInstruments() {
  std::vector<RunningInstrument> instruments;
  const auto add = [&](const fs::path& directory) {
    const int fd = ::open((directory / "state").c_str(), O_RDONLY | O_CLOEXEC);
    const auto state = std::make_unique<char[]>(offsetof(State, root));
    if (pread(fd, state.get(), offsetof(State, root), 0) ==
        static_cast<ssize_t>(offsetof(State, root))) {
      pid_t process = 0;
      std::memcpy(&process, &state[offsetof(State, process)], sizeof process);
      instruments.push_back({directory, std::to_string(process), &state[offsetof(State, name)]});
    }
    ::close(fd);
  };
  forEachInstrument(add, [](const fs::path& /*directory*/) {});
  return instruments;
}

/// Which of the running instruments is meant.
fs::path findInstrument(const std::string& nameOrProcess) {
  const std::string stateFile = stateFileOf(nameOrProcess);
  std::vector<fs::path> found;
  std::string known;
  for (const RunningInstrument& instrument : runningInstruments()) {
    known += " " + instrument.process + (instrument.name.empty() ? "" : "=" + instrument.name);
    if (nameOrProcess.empty() || nameOrProcess == instrument.name ||
        nameOrProcess == instrument.process || stateFile == instrument.directory / "state") {
      found.push_back(instrument.directory);
    }
  }
  if (found.size() == 1) {
    return found.front();
  }
  const std::string wanted = nameOrProcess.empty() ? "" : " " + nameOrProcess;
  throw std::runtime_error((found.empty()
                                ? "no instrument" + wanted + " runs"
                                : "more than one instrument" + wanted + " runs; choose by --on") +
                           (known.empty() ? "" : " (running:" + known + ")"));
}

}  // namespace

fs::path temporaryDirectory() {
  const fs::path given = g_get_tmp_dir();
  std::error_code missing;
  fs::path directory = given.is_absolute() ? fs::canonical(given, missing) : given;
  return missing ? given : directory;
}

void removeAbandonedInstruments() {
  forEachInstrument([](const fs::path& /*directory*/) {},
                    [](const fs::path& directory) {
                      std::error_code ignored;
                      tellPrograms(directory / "state");
                      fs::remove_all(directory, ignored);
                    },
                    O_CREAT);
}

void attachRunning(const std::string& nameOrProcess) {
  if (attached() && nameOrProcess.empty()) {
    return;
  }
  detach();
  const fs::path directory = findInstrument(nameOrProcess);
  setenv(rootVariable, directory.c_str(), 1);
  attach((directory / "state").c_str());
  requireTree();
}

void setKeys(const std::vector<std::string>& settings) {
  std::vector<Setting> parsed;
  for (const std::string& setting : settings) {
    parsed.push_back(parseSetting(setting));
  }
  change(*Locked(), parsed);
}

}  // namespace simulator
