// SPDX-License-Identifier: MIT
#include "simulator/preload/Paths.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>

#include "simulator/shared/HiddenFiles.h"
#include "simulator/shared/State.h"

namespace simulator {

namespace {

std::string directoryPath(int directory) {
  if (directory == AT_FDCWD) {
    char path[PATH_MAX];
    return getcwd(path, sizeof path) == nullptr ? "" : path;
  }
  const std::string path = targetOf(directory);
  const std::string root = attached() ? state()->root : "";
  return !root.empty() && startsWith(path, root + "/") ? path.substr(root.size()) : path;
}

}  // namespace

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

std::string linkOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

std::string targetOf(int fd) {
  char target[PATH_MAX];
  const long length = syscall(SYS_readlinkat, AT_FDCWD, linkOf(fd).c_str(), target, sizeof target);
  return length < 0 ? "" : std::string(target, static_cast<std::size_t>(length));
}

std::string absolutePath(int directory, const char* name) {
  if (name == nullptr || name[0] == '\0') {
    return "";
  }
  const bool absolute = name[0] == '/';
  if (absolute && std::strstr(name, "//") == nullptr && std::strstr(name, "/.") == nullptr) {
    return name;
  }
  const std::string path = absolute ? name : directoryPath(directory) + "/" + name;
  // Two slashes at the beginning are kept as something special.
  return std::filesystem::path("/." + path).lexically_normal().string();
}

std::optional<SysfsPath> sysfsPath(const std::string& absolute) {
  SysfsPath result{absolute, "", nullptr};
  if (!startsWith(absolute, "/sys/") && absolute != "/sys") {
    return std::nullopt;
  }
  for (const Part* part : parts) {
    const Attributes& attributes = part->attributes;
    if (attributes.directory != nullptr && startsWith(absolute, attributes.directory)) {
      requireInstrument(absolute.c_str());
      result.relative = absolute.substr(std::strlen(attributes.directory));
      result.attributes = attributes.owns(result.relative) ? &attributes : nullptr;
    }
  }
  return attached() ? std::make_optional(result) : std::nullopt;
}

std::optional<SysfsPath> sysfsPathBehind(int fd) {
  struct statfs system {};
  // Asked of the kernel itself: umockdev says the same of its tree.
  if (fd < 0 || syscall(SYS_fstatfs, fd, &system) != 0 || system.f_type != SYSFS_MAGIC) {
    return std::nullopt;
  }
  return sysfsPath(targetOf(fd));
}

bool isHidden(const std::string& absolute) {
  const auto is = [&](const char* hidden) { return absolute == hidden; };
  const auto begins = [&](const char* hidden) { return startsWith(absolute, hidden); };
  return attached() &&
         (std::any_of(std::begin(hiddenFiles), std::end(hiddenFiles), is) ||
          std::any_of(std::begin(hiddenBeginnings), std::end(hiddenBeginnings), begins));
}

std::string treePath(const SysfsPath& path) {
  requireRunning();
  return state()->root + path.full;
}

}  // namespace simulator
