// Files below /sys: attributes with a behaviour of their own, and the trace of all accesses.
//
// An attribute with a behaviour is opened as a small memory file. What a program reads from it was
// made up when it was opened. What a program writes is taken at the write or, where stdio wrote
// from its own buffer, when the descriptor is closed, and refused there as the kernel would.

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "simulator/Gpio.h"
#include "simulator/Next.h"
#include "simulator/Power.h"
#include "simulator/State.h"

namespace simulator {

namespace {

struct Behaviour {
  const char* directory;
  bool (*owns)(const std::string& path);
  int (*open)(const std::string& path, bool writing, std::string& content);
  int (*store)(const std::string& path, const std::string& text);
};

constexpr Behaviour behaviours[] = {
    {"/sys/class/gpio/", gpio::owns, gpio::open, gpio::store},
    {"/sys/platform/", power::owns, power::open, power::store},
};

/// A path below /sys, and the behaviour of the attribute that it names, if it has one.
struct SysfsPath {
  std::string full;
  std::string relative;  // to the behaviour's directory
  const Behaviour* behaviour = nullptr;
};

/// Nothing for a path outside /sys, which is none of the simulator's business.
std::optional<SysfsPath> sysfsPath(const char* path) {
  if (path == nullptr || std::strncmp(path, "/sys/", 5) != 0) {
    return std::nullopt;
  }
  SysfsPath result{std::filesystem::path(path).lexically_normal().string(), "", nullptr};
  for (const Behaviour& behaviour : behaviours) {
    const std::size_t length = std::strlen(behaviour.directory);
    if (result.full.compare(0, length, behaviour.directory) == 0) {
      requireInstrument(path);
      result.relative = result.full.substr(length);
      if (behaviour.owns(result.relative)) {
        result.behaviour = &behaviour;
      }
    }
  }
  if (!attached()) {
    return std::nullopt;
  }
  return result;
}

int store(const SysfsPath& path, const std::string& text) {
  const int error = path.behaviour->store(path.relative, text);
  traceResult("write " + path.full + " " + inQuotes(text), error);
  return error;
}

/// The attributes that this process has open for writing, by descriptor.
class OpenAttributes {
 public:
  void add(int fd, const SysfsPath& path) {
    const std::lock_guard<std::mutex> lock(mutex);
    entries[fd] = path;
    count = entries.size();
  }

  std::optional<SysfsPath> find(int fd) {
    if (count == 0) {  // the usual case, also inside a signal handler
      return std::nullopt;
    }
    const std::lock_guard<std::mutex> lock(mutex);
    const auto entry = entries.find(fd);
    return entry == entries.end() ? std::nullopt : std::make_optional(entry->second);
  }

  /// Forgets a descriptor that is about to be closed and takes what stdio has written to it.
  int settle(int fd) {
    const std::optional<SysfsPath> path = find(fd);
    if (!path) {
      return 0;
    }
    {
      const std::lock_guard<std::mutex> lock(mutex);
      entries.erase(fd);
      count = entries.size();
    }
    std::string text(static_cast<std::size_t>(lseek(fd, 0, SEEK_END)), '\0');
    if (text.empty()) {
      return 0;
    }
    (void)!pread(fd, text.data(), text.size(), 0);
    (void)!ftruncate(fd, 0);
    lseek(fd, 0, SEEK_SET);
    return store(*path, text);
  }

 private:
  std::mutex mutex;
  std::map<int, SysfsPath> entries;
  std::atomic<std::size_t> count{0};
};

// Never destroyed: programs close files while they exit.
OpenAttributes& openAttributes() {
  static auto* const attributes = new OpenAttributes;
  return *attributes;
}

constexpr char memoryFilePrefix[] = "talvero-sim:";

int createMemoryFile(const std::string& name, const std::string& content, int flags) {
  const int fd = memfd_create(name.c_str(), (flags & O_CLOEXEC) != 0 ? MFD_CLOEXEC : 0U);
  if (fd >= 0 && !content.empty()) {
    (void)!pwrite(fd, content.data(), content.size(), 0);
  }
  return fd;
}

/// Where umockdev keeps a file. Opened there, umockdev takes it for no device of its own and leaves
/// out the ioctl emulation, which has a thread that does not always keep up.
std::string treePath(const SysfsPath& path) { return Locked()->root + path.full; }

std::string plainContent(const SysfsPath& path) {
  std::ifstream file(treePath(path), std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

/// A descriptor for an attribute with a behaviour; -1 with errno when it cannot be opened.
int openBehaviour(const SysfsPath& path, int flags) {
  const bool reading = (flags & O_ACCMODE) != O_WRONLY;
  const bool writing = (flags & O_ACCMODE) != O_RDONLY;
  std::string content;
  const int error = path.behaviour->open(path.relative, writing, content);
  if (error != 0) {
    traceResult((writing ? "write " : "read ") + path.full, error);
    errno = error;
    return -1;
  }
  if (reading) {
    trace("read " + path.full + " " + inQuotes(content));
  }
  const int fd = createMemoryFile(memoryFilePrefix + path.full, writing ? "" : content, flags);
  if (fd >= 0 && writing) {
    openAttributes().add(fd, path);
  }
  return fd;
}

/// Before a plain file below /sys is opened: its attributes are read-only, and nobody creates one.
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

int streamFlags(const char* mode) {
  int flags = mode[0] == 'r' ? O_RDONLY : O_WRONLY;
  if (std::strchr(mode, '+') != nullptr) {
    flags = O_RDWR;
  }
  return std::strchr(mode, 'e') != nullptr ? flags | O_CLOEXEC : flags;
}

/// libpciaccess opens this file at each initialisation and never closes it.
bool isLeaked(const char* name) {
  return attached() && name != nullptr && std::strcmp(name, "/proc/mtrr") == 0;
}

template <typename Open>
int openFile(const char* name, int flags, Open real) {
  if (isLeaked(name)) {
    errno = ENOENT;
    return -1;
  }
  const std::optional<SysfsPath> path = sysfsPath(name);
  if (!path) {
    return real(name);
  }
  const std::string file = treePath(*path);
  if ((flags & O_DIRECTORY) != 0) {
    return real(file.c_str());
  }
  if (path->behaviour != nullptr) {
    return openBehaviour(*path, flags);
  }
  if (!mayOpenPlain(*path, flags)) {
    return -1;
  }
  const int fd = real(file.c_str());
  tracePlainRead(*path, fd >= 0);
  return fd;
}

template <typename Open>
std::FILE* openStream(const char* name, const char* mode, Open real) {
  const std::optional<SysfsPath> path = sysfsPath(name);
  if (!path) {
    return real(name);
  }
  const int flags = streamFlags(mode);
  if (path->behaviour != nullptr) {
    const int fd = openBehaviour(*path, flags);
    return fd < 0 ? nullptr : fdopen(fd, mode);
  }
  if (!mayOpenPlain(*path, flags)) {
    return nullptr;
  }
  std::FILE* stream = real(treePath(*path).c_str());
  tracePlainRead(*path, stream != nullptr);
  return stream;
}

/// The result of a write of `size` bytes that the attribute takes whole or refuses.
ssize_t storeResult(const SysfsPath& path, const std::string& text) {
  const int error = store(path, text);
  if (error != 0) {
    errno = error;
    return -1;
  }
  return static_cast<ssize_t>(text.size());
}

/// The close function's result, unless the attribute has refused what was written to it.
int closeResult(int error, int result) {
  if (error != 0) {
    errno = error;
    return EOF;
  }
  return result;
}

/// A program that was started with its output redirected into an attribute, as a shell does it,
/// finds the attribute among its descriptors.
void adoptInheritedAttributes() {
  const std::string start = std::string("/memfd:") + memoryFilePrefix;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ignored)) {
    const std::string target = std::filesystem::read_symlink(entry.path(), ignored).string();
    if (target.compare(0, start.size(), start) != 0) {
      continue;
    }
    const std::string name = target.substr(start.size(), target.rfind(' ') - start.size());
    const std::optional<SysfsPath> path = sysfsPath(name.c_str());
    if (path && path->behaviour != nullptr) {
      openAttributes().add(std::stoi(entry.path().filename()), *path);
    }
  }
}

// Programs that talvero-sim starts find the instrument in their environment.
__attribute__((constructor)) void start() {
  if (const char* stateFile = std::getenv(stateVariable)) {
    attach(stateFile);
    adoptInheritedAttributes();
  }
}

}  // namespace

}  // namespace simulator

using simulator::closeResult;
using simulator::next;
using simulator::openAttributes;
using simulator::openFile;
using simulator::openStream;

namespace {

mode_t creationMode(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

}  // namespace

extern "C" {

std::FILE* fopen(const char* path, const char* mode) {
  static const auto real = next(&fopen, "fopen");
  return openStream(path, mode, [&](const char* file) { return real(file, mode); });
}

std::FILE* fopen64(const char* path, const char* mode) {
  static const auto real = next(&fopen64, "fopen64");
  return openStream(path, mode, [&](const char* file) { return real(file, mode); });
}

int open(const char* path, int flags, ...) {
  static const auto real = next(&open, "open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(path, flags, [&](const char* file) { return real(file, flags, mode); });
}

int open64(const char* path, int flags, ...) {
  static const auto real = next(&open64, "open64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(path, flags, [&](const char* file) { return real(file, flags, mode); });
}

int openat(int directory, const char* path, int flags, ...) {
  static const auto real = next(&openat, "openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(path, flags,
                  [&](const char* file) { return real(directory, file, flags, mode); });
}

int openat64(int directory, const char* path, int flags, ...) {
  static const auto real = next(&openat64, "openat64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(path, flags,
                  [&](const char* file) { return real(directory, file, flags, mode); });
}

// What open and open64 become in programs built with -D_FORTIFY_SOURCE.
int __open_2(const char* path, int flags) { return open(path, flags); }

int __open64_2(const char* path, int flags) { return open64(path, flags); }

DIR* opendir(const char* path) {
  static const auto real = next(&opendir, "opendir");
  DIR* directory = real(path);
  if (simulator::sysfsPath(path)) {
    const int error = errno;
    simulator::traceResult(std::string("list ") + path, directory == nullptr ? error : 0);
    errno = error;
  }
  return directory;
}

ssize_t write(int fd, const void* data, size_t size) {
  static const auto real = next(&write, "write");
  if (const auto path = openAttributes().find(fd)) {
    return simulator::storeResult(*path, std::string(static_cast<const char*>(data), size));
  }
  return real(fd, data, size);
}

ssize_t writev(int fd, const iovec* parts, int count) {
  static const auto real = next(&writev, "writev");
  if (const auto path = openAttributes().find(fd)) {
    std::string text;
    for (int part = 0; part < count; ++part) {
      text.append(static_cast<const char*>(parts[part].iov_base), parts[part].iov_len);
    }
    return simulator::storeResult(*path, text);
  }
  return real(fd, parts, count);
}

int close(int fd) {
  static const auto real = next(&close, "close");
  const int error = openAttributes().settle(fd);
  return closeResult(error, real(fd));
}

int fclose(std::FILE* stream) {
  static const auto real = next(&fclose, "fclose");
  int error = 0;
  if (openAttributes().find(fileno(stream))) {
    std::fflush(stream);
    error = openAttributes().settle(fileno(stream));
  }
  return closeResult(error, real(stream));
}

int dup(int fd) noexcept {
  static const auto real = next(&dup, "dup");
  const int copy = real(fd);
  if (const auto path = openAttributes().find(fd); path && copy >= 0) {
    openAttributes().add(copy, *path);
  }
  return copy;
}

int dup3(int fd, int copy, int flags) noexcept {
  static const auto real = next(&dup3, "dup3");
  openAttributes().settle(copy);
  const int result = real(fd, copy, flags);
  if (const auto path = openAttributes().find(fd); path && result >= 0) {
    openAttributes().add(copy, *path);
  }
  return result;
}

int dup2(int fd, int copy) noexcept {
  static const auto real = next(&dup2, "dup2");
  return fd == copy ? real(fd, copy) : dup3(fd, copy, 0);
}

// glibc's own scandir opens the directory without asking umockdev; libpciaccess uses it.
int scandir(const char* path, dirent*** entries, int (*select)(const dirent*),
            int (*compare)(const dirent**, const dirent**)) {
  DIR* directory = opendir(path);
  if (directory == nullptr) {
    return -1;
  }
  std::vector<dirent*> found;
  while (const dirent* entry = readdir(directory)) {
    if (select == nullptr || select(entry) != 0) {
      found.push_back(static_cast<dirent*>(std::malloc(entry->d_reclen)));
      std::memcpy(found.back(), entry, entry->d_reclen);
    }
  }
  closedir(directory);
  *entries = static_cast<dirent**>(std::malloc((found.size() + 1) * sizeof(dirent*)));
  std::copy(found.begin(), found.end(), *entries);
  if (compare != nullptr) {
    qsort(*entries, found.size(), sizeof(dirent*),
          reinterpret_cast<int (*)(const void*, const void*)>(compare));
  }
  return static_cast<int>(found.size());
}

}  // extern "C"
