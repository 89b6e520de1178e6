// SPDX-License-Identifier: MIT
#include "simulator/preload/Paths.h"

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>

#include "simulator/shared/HiddenFiles.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

bool isBelow(const std::string& path, const std::string& directory) {
  return startsWith(path, directory) &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

/// A file of the tree by its name below /sys, as umockdev shows it.
std::string shownPath(const std::string& path) {
  const std::string root = attached() ? state()->root : "";
  return !root.empty() && isBelow(path, root + "/sys") ? path.substr(root.size()) : path;
}

std::string withoutDetours(const std::string& path) {
  // Two slashes at the beginning are kept as something special.
  return std::filesystem::path("/." + path).lexically_normal().string();
}

/// What a symbolic link holds, from the kernel itself; empty for another file.
std::string linkTarget(const std::string& path) {
  const int before = errno;
  std::string target(PATH_MAX, '\0');  // not on the stack, which may be a page in all
  const long length = syscall(SYS_readlinkat, AT_FDCWD, path.c_str(), target.data(), target.size());
  errno = before;
  target.resize(static_cast<std::size_t>(std::max(length, 0L)));
  return target;
}

/// Where an absolute path leads by the symbolic links in it. Those below /sys lead nowhere else;
/// who names the tree itself means that.
std::string followLinks(const std::string& path, bool followLast) {
  constexpr int most = 40;  // as the kernel
  std::string done;
  std::string rest = path;
  for (int links = 0; links <= most;) {
    const std::size_t start = rest.find_first_not_of('/');
    if (start == std::string::npos) {
      return done + (rest.empty() && !done.empty() ? "" : "/");
    }
    const std::size_t end = std::min(rest.find('/', start), rest.size());
    const std::string part = rest.substr(start, end - start);
    const std::string next = done + "/" + part;
    rest.erase(0, end);
    if (part == "." || part == "..") {
      done.erase(part == "." ? done.size() : std::min(done.rfind('/'), done.size()));
      continue;
    }
    const bool isTaken = isBelow(next, "/sys") || isHidden(next) || (rest.empty() && !followLast);
    const std::string target = isTaken ? "" : linkTarget(next);
    if (target.empty()) {
      done = next;
    } else {
      ++links;
      done = target[0] == '/' ? "" : done;
      rest = shownPath(target) + rest;
    }
  }
  return path;
}

std::string directoryPath(int directory) {
  if (directory == AT_FDCWD) {
    std::string path(PATH_MAX, '\0');
    return getcwd(path.data(), path.size()) == nullptr ? "" : path.c_str();
  }
  return shownPath(targetOf(directory));
}

}  // namespace

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

std::string linkOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

std::string targetOf(int fd) { return linkTarget(linkOf(fd)); }

std::string absolutePath(int directory, const char* name, bool followLast) {
  if (name == nullptr || name[0] == '\0') {
    return "";
  }
  const bool absolute = name[0] == '/';
  const bool hasDetours = std::strstr(name, "//") != nullptr || std::strstr(name, "/.") != nullptr;
  if (absolute && !hasDetours && isBelow(name, "/sys")) {
    return name;
  }
  const std::string start = absolute ? "" : directoryPath(directory);
  if (!absolute && start.empty()) {
    return "";  // there is no such directory: the kernel says so
  }
  const std::string path = absolute ? name : start + "/" + name;
  return nested() ? withoutDetours(path) : followLinks(path, followLast);
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

bool isInTree(int fd) {
  return attached() && isBelow(targetOf(fd), state()->root + std::string("/sys"));
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
