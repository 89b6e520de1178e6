// Files: every way to open, write and close one. SysfsFiles.h says what happens below /sys.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "simulator/Next.h"
#include "simulator/State.h"
#include "simulator/SysfsFiles.h"

using simulator::next;
using simulator::SysfsPath;
using simulator::writtenAttribute;

namespace {

int fail(int error) {
  errno = error;
  return -1;
}

int streamFlags(const char* mode) {
  int flags = mode[0] == 'r' ? O_RDONLY : O_WRONLY;
  if (std::strchr(mode, '+') != nullptr) {
    flags = O_RDWR;
  }
  return flags;
}

/// Opens a file below /sys, plain ones by `real`.
template <typename Open>
int openBelow(const SysfsPath& path, int flags, Open real) {
  if ((flags & (O_DIRECTORY | O_PATH)) != 0) {
    return real(simulator::treePath(path).c_str());
  }
  if (path.behaviour != nullptr) {
    return simulator::openAttribute(path, flags);
  }
  if (!simulator::mayOpenPlain(path, flags)) {
    return -1;
  }
  const int fd = real(simulator::treePath(path).c_str());
  simulator::tracePlainRead(path, fd >= 0);
  return fd;
}

template <typename Open>
int openFile(int directory, const char* name, int flags, Open real) {
  const std::string absolute = simulator::absolutePath(directory, name);
  if (simulator::isHidden(absolute)) {
    return fail(ENOENT);
  }
  if (const auto path = simulator::sysfsPath(absolute)) {
    return openBelow(*path, flags, real);
  }
  const int fd = real(name);
  if (const auto path = simulator::sysfsPathBehind(fd)) {
    close(fd);
    return openBelow(*path, flags, real);
  }
  return fd;
}

/// What a failing freopen does to its stream; leaves errno alone.
void closeStream(std::FILE* stream) {
  const int error = errno;
  if (stream != nullptr) {
    fclose(stream);
  }
  errno = error;
}

/// Opens a stream on a file below /sys: `stream`, whatever it had open, or by `real` if that is
/// null.
template <typename Open>
std::FILE* openStreamBelow(const SysfsPath& path, const char* mode, std::FILE* stream, Open real) {
  static const auto realOpen = next(&open, "open");
  static const auto realReopen = next(&freopen, "freopen");
  const int fd = openBelow(path, streamFlags(mode),
                           [](const char* file) { return realOpen(file, O_RDONLY | O_CLOEXEC); });
  if (fd < 0) {
    closeStream(stream);
    return nullptr;
  }
  const std::string file = "/proc/self/fd/" + std::to_string(fd);
  std::FILE* result =
      stream == nullptr ? real(file.c_str(), mode) : realReopen(file.c_str(), mode, stream);
  close(fd);
  return result;
}

template <typename Open>
std::FILE* openStream(const char* name, const char* mode, std::FILE* stream, Open real) {
  const std::string absolute = simulator::absolutePath(AT_FDCWD, name);
  if (simulator::isHidden(absolute)) {
    errno = ENOENT;
    closeStream(stream);
    return nullptr;
  }
  if (const auto path = simulator::sysfsPath(absolute)) {
    return openStreamBelow(*path, mode, stream, real);
  }
  std::FILE* result = real(name, mode);
  if (result == nullptr) {
    return nullptr;
  }
  const auto path = simulator::sysfsPathBehind(fileno(result));
  return path ? openStreamBelow(*path, mode, result, real) : result;
}

template <typename Reopen>
std::FILE* reopenStream(const char* name, const char* mode, std::FILE* stream, Reopen real) {
  fflush(stream);
  return name == nullptr ? real(name, mode, stream)
                         : openStream(name, mode, stream, [&](const char* file, const char* how) {
                             return real(file, how, stream);
                           });
}

/// A write that the attribute takes whole or refuses.
ssize_t storeAll(const SysfsPath& path, const std::string& text) {
  const int error = text.empty() ? 0 : simulator::store(path, text);
  return error != 0 ? fail(error) : static_cast<ssize_t>(text.size());
}

mode_t creationMode(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

// umockdev's lock for whatever takes a path. A fork waits for it: the child of a program with
// several threads would find it locked for ever by a thread that the child does not have.
pthread_mutex_t* umockdevLock() {
  static auto* const lock = static_cast<pthread_mutex_t*>(dlsym(RTLD_DEFAULT, "trap_path_lock"));
  return lock;
}

void lockUmockdev() { pthread_mutex_lock(umockdevLock()); }

void unlockUmockdev() { pthread_mutex_unlock(umockdevLock()); }

// Programs that talvero-sim starts find the instrument in their environment.
__attribute__((constructor)) void start() {
  if (umockdevLock() != nullptr) {
    pthread_atfork(lockUmockdev, unlockUmockdev, unlockUmockdev);
  }
  if (const char* stateFile = std::getenv(simulator::stateVariable)) {
    simulator::attach(stateFile);
    simulator::findInherited();
  }
}

// Streams that nobody has closed, standard output in the first place.
__attribute__((destructor)) void finish() {
  if (simulator::attached()) {
    simulator::settleAll([] {
      // A thread that waits for input holds the lock of its stream.
      if (ftrylockfile(stdin) == 0) {
        funlockfile(stdin);
        std::fflush(nullptr);
      }
    });
  }
}

}  // namespace

extern "C" {

std::FILE* fopen(const char* path, const char* mode) {
  static const auto real = next(&fopen, "fopen");
  return openStream(path, mode, nullptr, real);
}

std::FILE* fopen64(const char* path, const char* mode) {
  static const auto real = next(&fopen64, "fopen64");
  return openStream(path, mode, nullptr, real);
}

std::FILE* freopen(const char* path, const char* mode, std::FILE* stream) {
  static const auto real = next(&freopen, "freopen");
  return reopenStream(path, mode, stream, real);
}

std::FILE* freopen64(const char* path, const char* mode, std::FILE* stream) {
  static const auto real = next(&freopen64, "freopen64");
  return reopenStream(path, mode, stream, real);
}

int open(const char* path, int flags, ...) {
  static const auto real = next(&open, "open");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(AT_FDCWD, path, flags, [&](const char* file) { return real(file, flags, mode); });
}

int open64(const char* path, int flags, ...) {
  static const auto real = next(&open64, "open64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(AT_FDCWD, path, flags, [&](const char* file) { return real(file, flags, mode); });
}

int openat(int directory, const char* path, int flags, ...) {
  static const auto real = next(&openat, "openat");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(directory, path, flags,
                  [&](const char* file) { return real(directory, file, flags, mode); });
}

int openat64(int directory, const char* path, int flags, ...) {
  static const auto real = next(&openat64, "openat64");
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = creationMode(flags, arguments);
  va_end(arguments);
  return openFile(directory, path, flags,
                  [&](const char* file) { return real(directory, file, flags, mode); });
}

int creat(const char* path, mode_t mode) { return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }

int creat64(const char* path, mode_t mode) { return creat(path, mode); }

// What these become in programs built with -D_FORTIFY_SOURCE.
int __open_2(const char* path, int flags) { return open(path, flags); }

int __open64_2(const char* path, int flags) { return open64(path, flags); }

int __openat_2(int directory, const char* path, int flags) {
  return openat(directory, path, flags);
}

int __openat64_2(int directory, const char* path, int flags) {
  return openat64(directory, path, flags);
}

// The new program's files are opened without a call of the C library that could be answered here.
int posix_spawn_file_actions_addopen(posix_spawn_file_actions_t* actions, int fd, const char* name,
                                     int flags, mode_t mode) noexcept {
  static const auto real =
      next(&posix_spawn_file_actions_addopen, "posix_spawn_file_actions_addopen");
  const std::string absolute = simulator::absolutePath(AT_FDCWD, name);
  const bool refused = simulator::isHidden(absolute) || simulator::sysfsPath(absolute);
  return refused ? EACCES : real(actions, fd, name, flags, mode);
}

DIR* opendir(const char* name) {
  static const auto real = next(&opendir, "opendir");
  DIR* directory = real(name);
  if (const auto path = simulator::sysfsPath(simulator::absolutePath(AT_FDCWD, name))) {
    const int error = errno;
    simulator::traceResult("list " + path->full, directory == nullptr ? error : 0);
    errno = error;
  }
  return directory;
}

ssize_t write(int fd, const void* data, size_t size) {
  static const auto real = next(&write, "write");
  if (const auto path = writtenAttribute(fd)) {
    return storeAll(*path, std::string(static_cast<const char*>(data), size));
  }
  return real(fd, data, size);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
  static const auto real = next(&pwrite, "pwrite");
  if (const auto path = writtenAttribute(fd)) {
    return storeAll(*path, std::string(static_cast<const char*>(data), size));
  }
  return real(fd, data, size, offset);
}

ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) {
  static const auto real = next(&pwrite64, "pwrite64");
  if (const auto path = writtenAttribute(fd)) {
    return storeAll(*path, std::string(static_cast<const char*>(data), size));
  }
  return real(fd, data, size, offset);
}

ssize_t writev(int fd, const iovec* parts, int count) {
  static const auto real = next(&writev, "writev");
  if (const auto path = writtenAttribute(fd)) {
    std::string text;
    for (int part = 0; part < count; ++part) {
      text.append(static_cast<const char*>(parts[part].iov_base), parts[part].iov_len);
    }
    return storeAll(*path, text);
  }
  return real(fd, parts, count);
}

// An attribute is read anew by a program that returns to its start.
off_t lseek(int fd, off_t offset, int whence) noexcept {
  static const auto real = next(&lseek, "lseek");
  if (offset == 0 && whence == SEEK_SET) {
    simulator::refresh(fd);
  }
  return real(fd, offset, whence);
}

off64_t lseek64(int fd, off64_t offset, int whence) noexcept {
  static const auto real = next(&lseek64, "lseek64");
  if (offset == 0 && whence == SEEK_SET) {
    simulator::refresh(fd);
  }
  return real(fd, offset, whence);
}

ssize_t pread(int fd, void* data, size_t size, off_t offset) {
  static const auto real = next(&pread, "pread");
  if (offset == 0) {
    simulator::refresh(fd);
  }
  return real(fd, data, size, offset);
}

ssize_t pread64(int fd, void* data, size_t size, off64_t offset) {
  static const auto real = next(&pread64, "pread64");
  if (offset == 0) {
    simulator::refresh(fd);
  }
  return real(fd, data, size, offset);
}

// What these become in programs built with -D_FORTIFY_SOURCE.
ssize_t __pread_chk(int fd, void* data, size_t size, off_t offset, size_t /*room*/) {
  return pread(fd, data, size, offset);
}

ssize_t __pread64_chk(int fd, void* data, size_t size, off64_t offset, size_t /*room*/) {
  return pread64(fd, data, size, offset);
}

int close(int fd) {
  static const auto real = next(&close, "close");
  const int error = simulator::settle(fd);
  const int result = real(fd);
  return error != 0 ? fail(error) : result;
}

int fflush(std::FILE* stream) {
  static const auto real = next(&fflush, "fflush");
  const int result = real(stream);
  if (stream == nullptr) {
    const int error = simulator::settleAll([] {});
    return error != 0 ? fail(error) : result;
  }
  const int error = simulator::settle(fileno(stream));
  if (error != 0) {
    stream->_flags |= _IO_ERR_SEEN;  // shells ask for it by ferror
    return fail(error);
  }
  return result;
}

int fclose(std::FILE* stream) {
  static const auto real = next(&fclose, "fclose");
  const int flushed = writtenAttribute(fileno(stream)) ? fflush(stream) : 0;
  const int error = errno;
  const int result = real(stream);
  return flushed != 0 ? fail(error) : result;
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
