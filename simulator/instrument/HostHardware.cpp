// SPDX-License-Identifier: MIT
#include "simulator/instrument/HostHardware.h"

#include <fcntl.h>
#include <glob.h>
#include <linux/capability.h>
#include <mntent.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "simulator/shared/HiddenFiles.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

bool hasCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3]{};
  syscall(SYS_capget, &header, sets);
  return sets[0].permitted != 0 || sets[1].permitted != 0;
}

/// The capabilities that no program may get, not even by its file.
std::vector<int> droppedCapabilities() {
  std::vector<int> dropped;
  for (int capability = 0, held = 0; held >= 0; ++capability) {
    held = prctl(PR_CAPBSET_READ, capability);
    if (held == 0) {
      dropped.push_back(capability);
    }
  }
  return dropped;
}

bool writeOnce(const char* file, const std::string& text) {
  const int fd = ::open(file, O_WRONLY | O_CLOEXEC);
  const bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ::close(fd);
  return written;
}

/// In its namespace the process's user and group are who they were, and all others nobody.
bool enterUserNamespace() {
  const std::string user = std::to_string(geteuid());
  const std::string group = std::to_string(getegid());
  return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && writeOnce("/proc/self/setgroups", "deny") &&
         writeOnce("/proc/self/uid_map", user + " " + user + " 1") &&
         writeOnce("/proc/self/gid_map", group + " " + group + " 1");
}

/// What is mounted from now on is seen here only; what the host mounts is still seen.
bool keepMountsPrivate() { return mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) == 0; }

bool coverDirectory(const std::string& path) {
  return mount("talvero-sim", path.c_str(), "tmpfs", MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC,
               "mode=555") == 0;
}

bool coverFile(const std::string& path, const std::string& by) {
  return mount(by.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

/// A process that has entered a user namespace cannot leave it: another one tries.
bool userNamespaceAllowsMounts() {
  const pid_t trial = fork();
  if (trial == 0) {
    _exit(enterUserNamespace() && keepMountsPrivate() && coverDirectory("/sys") ? 0 : 1);
  }
  int status = -1;
  return waitpid(trial, &status, 0) == trial && status == 0;
}

std::set<std::string> sysfsMounts() {
  std::set<std::string> directories{"/sys"};
  if (std::FILE* const mounts = setmntent("/proc/self/mounts", "re")) {
    while (const mntent* entry = getmntent(mounts)) {
      if (std::strcmp(entry->mnt_type, "sysfs") == 0) {
        directories.insert(entry->mnt_dir);
      }
    }
    endmntent(mounts);
  }
  return directories;
}

std::vector<std::string> filesThatBegin(const std::string& beginning) {
  glob_t found{};
  glob((beginning + "*").c_str(), 0, nullptr, &found);
  std::vector<std::string> files(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  globfree(&found);
  return files;
}

void coverHardware() {
  if (!keepMountsPrivate()) {
    return;
  }
  const std::string nothing = std::string(state()->root) + "/nothing";
  ::close(::open(nothing.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0));
  for (const std::string& directory : sysfsMounts()) {
    coverDirectory(directory);
  }
  for (const char* file : hiddenFiles) {
    coverFile(file, nothing);
  }
  for (const char* beginning : hiddenBeginnings) {
    for (const std::string& file : filesThatBegin(beginning)) {
      if (!coverDirectory(file)) {
        coverFile(file, nothing);
      }
    }
  }
}

}  // namespace

void hideHostHardware() {
  const Nested nested;  // the names of what is hidden are the host's
  if (unshare(CLONE_NEWNS) == 0) {
    coverHardware();
    return;
  }
  const std::vector<int> dropped = droppedCapabilities();
  // Capabilities would no longer hold for what is outside the user namespace.
  if (!hasCapabilities() && userNamespaceAllowsMounts() && enterUserNamespace()) {
    coverHardware();
    for (const int capability : dropped) {
      prctl(PR_CAPBSET_DROP, capability);  // the namespace gives all anew
    }
  }
}

}  // namespace simulator
