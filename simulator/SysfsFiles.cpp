#include "simulator/SysfsFiles.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "simulator/Gpio.h"
#include "simulator/Power.h"
#include "simulator/State.h"

namespace simulator {

struct Behaviour {
  const char* directory;
  bool (*owns)(const std::string& path);
  int (*open)(const std::string& path, bool writing, std::string& content);
  int (*store)(const std::string& path, const std::string& text);
};

namespace {

constexpr Behaviour behaviours[] = {
    {"/sys/class/gpio/", gpio::owns, gpio::open, gpio::store},
    {"/sys/platform/", power::owns, power::open, power::store},
};

// libpciaccess opens /proc/mtrr at each initialisation and never closes it; a power controller of a
// module without links writes to /value, which root would create.
constexpr const char* hiddenFiles[] = {"/proc/mtrr", "/dev/mem", "/dev/kmem", "/dev/port",
                                       "/value"};
constexpr const char* hiddenBeginnings[] = {"/proc/bus/pci/", "/dev/gpiochip", "/dev/i2c-"};

// In front of the attribute's path in the name of its memory file; the mode stands between them.
constexpr char memoryFileStart[] = "/memfd:talvero-sim:";
constexpr char modes[] = {'r', 'w', 'u'};  // O_RDONLY, O_WRONLY, O_RDWR

bool startsWith(const std::string& text, const std::string& start) {
  return text.compare(0, start.size(), start) == 0;
}

std::string linkOf(int fd) { return "/proc/self/fd/" + std::to_string(fd); }

/// The file behind a descriptor, from the kernel itself: umockdev shows its tree as /sys.
std::string targetOf(int fd) {
  char target[PATH_MAX];
  const long length = syscall(SYS_readlinkat, AT_FDCWD, linkOf(fd).c_str(), target, sizeof target);
  return length < 0 ? "" : std::string(target, static_cast<std::size_t>(length));
}

std::string directoryPath(int directory) {
  if (directory == AT_FDCWD) {
    char path[PATH_MAX];
    return getcwd(path, sizeof path) == nullptr ? "" : path;
  }
  const std::string path = targetOf(directory);
  const std::string root = attached() ? state()->root : "";
  return !root.empty() && startsWith(path, root + "/") ? path.substr(root.size()) : path;
}

// Whether this process has had an attribute open: one that has not pays nothing.
std::atomic<bool> attributesInUse{false};

/// The descriptor's attribute and access mode, if it is a memory file of ours.
struct OpenAttribute {
  std::optional<SysfsPath> path;
  char mode = 0;
};

OpenAttribute attributeOf(int fd) {
  const int before = errno;
  OpenAttribute result;
  // Only memory files know of seals: this answers for nearly all others, at the lowest price.
  if (attributesInUse && attached() && !nested() && fcntl(fd, F_GET_SEALS) >= 0) {
    const std::string target = targetOf(fd);
    const std::size_t start = std::strlen(memoryFileStart);
    if (startsWith(target, memoryFileStart)) {
      result.mode = target[start];
      // The kernel adds " (deleted)".
      result.path = sysfsPath(target.substr(start + 2, target.rfind(' ') - start - 2));
    }
  }
  errno = before;
  return result;
}

/// Fills a memory file. One that nobody has written to since is older than all others.
void setContent(int fd, const std::string& content) {
  const Nested nested;
  const timespec never[2] = {};
  (void)!ftruncate(fd, 0);
  (void)!pwrite(fd, content.data(), content.size(), 0);
  futimens(fd, never);
}

int createMemoryFile(const SysfsPath& path, const std::string& content, int flags) {
  const Nested nested;
  const char mode = modes[flags & O_ACCMODE];
  const std::string name =
      std::string(memoryFileStart).substr(std::strlen("/memfd:")) + mode + ":" + path.full;
  const int file = memfd_create(name.c_str(), MFD_CLOEXEC);
  if (file < 0) {
    return -1;
  }
  setContent(file, content);
  const int fd = ::open(linkOf(file).c_str(), flags & (O_ACCMODE | O_CLOEXEC | O_APPEND));
  ::close(file);
  return fd;
}

/// What has been written to a memory file that was empty before, or up to where writing has come to
/// in one that was not; no more than an attribute takes, a page.
std::string writtenText(int fd, char mode) {
  const Nested nested;
  struct stat status {};
  fstat(fd, &status);
  const off_t length = mode == 'w' ? status.st_size : lseek(fd, 0, SEEK_CUR);
  std::string text(static_cast<std::size_t>(std::clamp<off_t>(length, 0, 4096)), '\0');
  const int reader = ::open(linkOf(fd).c_str(), O_RDONLY | O_CLOEXEC);
  const ssize_t size = pread(reader, text.data(), text.size(), 0);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  ::close(reader);
  lseek(fd, 0, SEEK_SET);
  return text;
}

bool isWritten(int fd) {
  struct stat status {};
  return fstat(fd, &status) == 0 && (status.st_mtim.tv_sec != 0 || status.st_mtim.tv_nsec != 0);
}

std::string contentOf(const SysfsPath& path, char mode) {
  std::string content;
  if (mode != 'w') {
    path.behaviour->open(path.relative, false, content);
  }
  return content;
}

std::string plainContent(const SysfsPath& path) {
  const Nested nested;
  std::ifstream file(treePath(path), std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

}  // namespace

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
  if (!startsWith(result.full, "/sys/")) {
    return std::nullopt;
  }
  for (const Behaviour& behaviour : behaviours) {
    if (startsWith(result.full, behaviour.directory)) {
      requireInstrument(result.full.c_str());
      result.relative = result.full.substr(std::strlen(behaviour.directory));
      if (behaviour.owns(result.relative)) {
        result.behaviour = &behaviour;
      }
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

std::string treePath(const SysfsPath& path) { return state()->root + path.full; }

int openAttribute(const SysfsPath& path, int flags) {
  const char mode = modes[flags & O_ACCMODE];
  std::string content;
  int error = (flags & O_CREAT) != 0 && (flags & O_EXCL) != 0 ? EEXIST : 0;
  for (const bool writing : {false, true}) {
    if (error == 0 && mode != (writing ? 'r' : 'w')) {
      error = path.behaviour->open(path.relative, writing, content);
    }
  }
  if (error != 0) {
    traceResult((mode == 'r' ? "read " : "write ") + path.full, error);
    errno = error;
    return -1;
  }
  if (mode != 'w') {
    trace("read " + path.full + " " + inQuotes(content));
  }
  attributesInUse = true;
  return createMemoryFile(path, mode == 'w' ? "" : content, flags);
}

bool mayOpenPlain(const SysfsPath& path, int flags) {
  if ((flags & O_ACCMODE) == O_RDONLY || nested()) {
    return true;
  }
  traceResult("write " + path.full, EACCES);
  errno = EACCES;
  return false;
}

void tracePlainRead(const SysfsPath& path, bool opened) {
  if (nested()) {
    return;
  }
  const int error = errno;
  if (opened) {
    trace("read " + path.full + " " + inQuotes(plainContent(path)));
  } else {
    traceResult("read " + path.full, error);
  }
  errno = error;
}

std::optional<SysfsPath> writtenAttribute(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  return attribute.mode == 'r' ? std::nullopt : attribute.path;
}

int store(const SysfsPath& path, const std::string& text) {
  const int error = path.behaviour->store(path.relative, text);
  traceResult("write " + path.full + " " + inQuotes(text), error);
  return error;
}

int settle(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'r' || !isWritten(fd)) {
    return 0;
  }
  const std::string text = writtenText(fd, attribute.mode);
  const int error = text.empty() ? 0 : store(*attribute.path, text);
  setContent(fd, contentOf(*attribute.path, attribute.mode));
  return error;
}

void findInherited() {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    if (startsWith(targetOf(std::stoi(entry.path().filename())), memoryFileStart)) {
      attributesInUse = true;
    }
  }
}

int settleAll(void (*flush)()) {
  if (!attributesInUse) {
    return 0;
  }
  std::vector<int> open;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    const int fd = std::stoi(entry.path().filename());
    if (writtenAttribute(fd)) {
      open.push_back(fd);
    }
  }
  if (!open.empty()) {
    flush();
  }
  int error = 0;
  for (const int fd : open) {
    const int result = settle(fd);
    error = error == 0 ? result : error;
  }
  return error;
}

void refresh(int fd) {
  const OpenAttribute attribute = attributeOf(fd);
  if (!attribute.path || attribute.mode == 'w') {
    return;
  }
  settle(fd);
  const std::string content = contentOf(*attribute.path, attribute.mode);
  trace("read " + attribute.path->full + " " + inQuotes(content));
  const Nested nested;
  const int file = ::open(linkOf(fd).c_str(), O_RDWR | O_CLOEXEC);
  setContent(file, content);
  ::close(file);
}

}  // namespace simulator
