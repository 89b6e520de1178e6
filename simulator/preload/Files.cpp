// SPDX-License-Identifier: MIT
// Files: every way to open, write and close one.

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "simulator/parts/Changes.h"
#include "simulator/preload/Attributes.h"
#include "simulator/preload/Next.h"
#include "simulator/preload/Paths.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

using simulator::next;
using simulator::SysfsPath;

// One definition serves both names of a function: files are as large for the one as for the other.
static_assert(sizeof(off_t) == sizeof(off64_t) && sizeof(dirent) == sizeof(dirent64) &&
                  sizeof(struct statfs) == sizeof(struct statfs64),
              "two definitions are needed");

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
  return mode[0] == 'r' ? flags : flags | O_CREAT;
}

std::string contentOf(const SysfsPath& path) {
  const simulator::Nested nested;
  std::ifstream file(simulator::treePath(path), std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

/// Why the kernel lets nobody write to a plain file below /sys: it is read-only, and nobody creates
/// one.
int refusalOfWriting(const SysfsPath& path, int flags) {
  const simulator::Nested nested;
  std::error_code error;
  const auto kind = std::filesystem::status(simulator::treePath(path), error).type();
  const bool missing = kind == std::filesystem::file_type::not_found;
  return kind == std::filesystem::file_type::directory ? EISDIR
         : missing && (flags & O_CREAT) == 0           ? ENOENT
                                                       : EACCES;
}

/// Opens a plain file below /sys by `real`.
template <typename Open>
int openPlain(const SysfsPath& path, int flags, Open real) {
  if (simulator::nested()) {
    return real(simulator::treePath(path).c_str());
  }
  const bool writing = (flags & O_ACCMODE) != O_RDONLY;
  int error = writing ? refusalOfWriting(path, flags) : simulator::admit("open " + path.full);
  const int readError = writing ? 0 : simulator::admit("read " + path.full);
  const int fd = error != 0 ? -1 : real(simulator::treePath(path).c_str());
  if (fd < 0) {
    error = error != 0 ? error : errno;
    simulator::traceResult((writing ? "write " : "read ") + path.full, error);
    return fail(error);
  }
  simulator::traceReading(path, contentOf(path), readError);
  if (readError == 0) {
    return fd;
  }
  close(fd);
  return simulator::openUnreadable(flags);
}

/// Opens a directory below /sys by `real`, whose result is `failed` where that cannot be.
template <typename Result, typename Open>
Result openDirectory(const SysfsPath& path, Result failed, Open real) {
  const std::string access = "list " + path.full.substr(0, path.full.find_last_not_of('/') + 1);
  int error = simulator::admit(access);
  const Result result = error != 0 ? failed : real();
  error = error != 0 || result != failed ? error : errno;
  simulator::traceResult(access, error);
  errno = error;
  return result;
}

/// Opens a file below /sys, plain ones by `real`.
template <typename Open>
int openBelow(const SysfsPath& path, int flags, Open real) {
  if ((flags & O_PATH) != 0) {
    return real(simulator::treePath(path).c_str());
  }
  if ((flags & O_DIRECTORY) != 0) {
    return openDirectory(path, -1, [&] { return real(simulator::treePath(path).c_str()); });
  }
  return path.attributes != nullptr ? simulator::openAttribute(path, flags)
                                    : openPlain(path, flags, real);
}

template <typename Open>
int openFile(int directory, const char* name, int flags, Open real) {
  const std::string absolute = simulator::absolutePath(directory, name, (flags & O_NOFOLLOW) == 0);
  if (simulator::isHidden(absolute)) {
    return fail(ENOENT);
  }
  const auto path = simulator::sysfsPath(absolute);
  return path ? openBelow(*path, flags, real) : real(name);
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
  const auto path = simulator::sysfsPath(absolute);
  return path ? openStreamBelow(*path, mode, stream, real) : real(name, mode);
}

mode_t creationMode(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

// umockdev's lock for whatever takes a path. A fork waits for it: the child of a program with
// several threads would find it locked for ever by a thread that the child does not have.
pthread_mutex_t* umockdevLock = nullptr;

void lockUmockdev() { pthread_mutex_lock(umockdevLock); }

void unlockUmockdev() { pthread_mutex_unlock(umockdevLock); }

// A fork takes locks in the reverse order of their registration: umockdev's, which others' holders
// take as well, has to be the first that is registered.
void registerForForks() {
  if (umockdevLock == nullptr) {
    umockdevLock = static_cast<pthread_mutex_t*>(dlsym(RTLD_DEFAULT, "trap_path_lock"));
    if (umockdevLock != nullptr) {
      pthread_atfork(lockUmockdev, unlockUmockdev, unlockUmockdev);
    }
  }
}

// Programs that talvero-sim starts find the instrument in their environment.
__attribute__((constructor)) void start() {
  registerForForks();
  if (const char* stateFile = secure_getenv(simulator::stateVariable)) {
    simulator::attach(stateFile);
    simulator::requireTree();
    simulator::takePartAlone();
    simulator::findInheritedAttributes();
  }
}

// Streams that nobody has closed, standard output in the first place.
__attribute__((destructor)) void finish() {
  if (simulator::attached()) {
    simulator::takeAllWritten([] {
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

// What pthread_atfork calls, in libraries that begin before this one too: ThreadSanitizer among
// them, which cannot have an initialisation guarded yet.
int __register_atfork(void (*prepare)(), void (*parent)(), void (*child)(), void* library) {
  static decltype(&__register_atfork) real = nullptr;
  real = real == nullptr ? next(&__register_atfork, "__register_atfork") : real;
  registerForForks();
  return real(prepare, parent, child, library);
}

std::FILE* fopen(const char* path, const char* mode) {
  static const auto real = next(&fopen, "fopen");
  return openStream(path, mode, nullptr, real);
}

std::FILE* freopen(const char* path, const char* mode, std::FILE* stream) {
  static const auto real = next(&freopen, "freopen");
  fflush(stream);
  if (path == nullptr) {
    return real(path, mode, stream);
  }
  return openStream(path, mode, stream, [stream](const char* file, const char* how) {
    return real(file, how, stream);
  });
}

int open(const char* path, int flags, ...) {
  static const auto real = next(&open, "open");
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

int creat(const char* path, mode_t mode) { return open(path, O_CREAT | O_WRONLY | O_TRUNC, mode); }

// What it was in programs built with older C libraries.
std::FILE* _IO_fopen(const char* path, const char* mode) { return fopen(path, mode); }

// What these become in programs built with -D_FORTIFY_SOURCE.
int __open_2(const char* path, int flags) { return open(path, flags); }

int __openat_2(int directory, const char* path, int flags) {
  return openat(directory, path, flags);
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

int posix_spawn_file_actions_addchdir_np(posix_spawn_file_actions_t* actions,
                                         const char* name) noexcept {
  static const auto real =
      next(&posix_spawn_file_actions_addchdir_np, "posix_spawn_file_actions_addchdir_np");
  const auto path = simulator::sysfsPath(simulator::absolutePath(AT_FDCWD, name));
  return real(actions, path ? simulator::treePath(*path).c_str() : name);
}

DIR* opendir(const char* name) {
  static const auto real = next(&opendir, "opendir");
  const std::string absolute = simulator::absolutePath(AT_FDCWD, name);
  if (simulator::isHidden(absolute)) {
    errno = ENOENT;
    return nullptr;
  }
  const auto path = simulator::sysfsPath(absolute);
  return path ? openDirectory(*path, static_cast<DIR*>(nullptr),
                              [&] { return real(path->full.c_str()); })
              : real(name);
}

ssize_t write(int fd, const void* data, size_t size) {
  static const auto real = next(&write, "write");
  const iovec text{const_cast<void*>(data), size};
  const auto taken = simulator::writeAttribute(fd, &text, 1);
  return taken ? *taken : real(fd, data, size);
}

ssize_t pwrite(int fd, const void* data, size_t size, off_t offset) {
  static const auto real = next(&pwrite, "pwrite");
  const iovec text{const_cast<void*>(data), size};
  const auto taken = simulator::writeAttribute(fd, &text, 1, offset);
  return taken ? *taken : real(fd, data, size, offset);
}

ssize_t writev(int fd, const iovec* parts, int count) {
  static const auto real = next(&writev, "writev");
  const auto taken = simulator::writeAttribute(fd, parts, count);
  return taken ? *taken : real(fd, parts, count);
}

// Nobody copies a range of another file to one below /sys, or from there, at once.
ssize_t copy_file_range(int from, off64_t* fromOffset, int to, off64_t* toOffset, size_t size,
                        unsigned int flags) {
  static const auto real = next(&copy_file_range, "copy_file_range");
  return simulator::isBelowSys(from) || simulator::isBelowSys(to)
             ? fail(EXDEV)
             : real(from, fromOffset, to, toOffset, size, flags);
}

// An attribute is read anew by a program that returns to its start, and one that holds bytes by one
// that goes anywhere.
off_t lseek(int fd, off_t offset, int whence) noexcept {
  static const auto real = next(&lseek, "lseek");
  simulator::failNextRead(fd, simulator::readAnew(fd, offset == 0 && whence == SEEK_SET));
  return real(fd, offset, whence);
}

ssize_t read(int fd, void* data, size_t size) {
  static const auto real = next(&read, "read");
  const int error = simulator::takeReadError(fd);
  return error != 0 ? fail(error) : real(fd, data, size);
}

ssize_t pread(int fd, void* data, size_t size, off_t offset) {
  static const auto real = next(&pread, "pread");
  const int error = simulator::readAnew(fd, offset == 0);
  return error != 0 ? fail(error) : real(fd, data, size, offset);
}

// What it becomes in programs built with -D_FORTIFY_SOURCE.
ssize_t __read_chk(int fd, void* data, size_t size, size_t /*room*/) {
  return read(fd, data, size);
}

ssize_t __pread_chk(int fd, void* data, size_t size, off_t offset, size_t /*room*/) {
  return pread(fd, data, size, offset);
}

int close(int fd) {
  static const auto real = next(&close, "close");
  simulator::takeReadError(fd);
  const int error = simulator::takeWritten(fd);
  const int result = real(fd);
  return error != 0 ? fail(error) : result;
}

int fflush(std::FILE* stream) {
  static const auto real = next(&fflush, "fflush");
  const int result = real(stream);
  if (stream == nullptr) {
    const int error = simulator::takeAllWritten([] {});
    return error != 0 ? fail(error) : result;
  }
  const int error = simulator::takeWritten(fileno(stream));
  if (error != 0) {
    stream->_flags |= _IO_ERR_SEEN;  // shells ask for it by ferror
    return fail(error);
  }
  return result;
}

int fclose(std::FILE* stream) {
  static const auto real = next(&fclose, "fclose");
  const int flushed = simulator::isWritableAttribute(fileno(stream)) ? fflush(stream) : 0;
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

int scandirat(int directory, const char* path, dirent*** entries, int (*select)(const dirent*),
              int (*compare)(const dirent**, const dirent**)) {
  static const auto real = next(&scandirat, "scandirat");
  const std::string absolute = simulator::absolutePath(directory, path);
  const bool isElsewhere = !simulator::isHidden(absolute) && !simulator::sysfsPath(absolute);
  return isElsewhere ? real(directory, path, entries, select, compare)
                     : scandir(absolute.c_str(), entries, select, compare);
}

// umockdev's own looks at the file of another thread.
int fstatfs(int fd, struct statfs* system) noexcept {
  const long result = syscall(SYS_fstatfs, fd, system);
  if (result == 0 && simulator::isInTree(fd)) {
    system->f_type = SYSFS_MAGIC;
  }
  return static_cast<int>(result);
}

#define SAME_AS(name) __attribute__((alias(name)))

std::FILE* fopen64(const char* path, const char* mode) SAME_AS("fopen");
std::FILE* freopen64(const char* path, const char* mode, std::FILE* stream) SAME_AS("freopen");
int open64(const char* path, int flags, ...) SAME_AS("open");
int __open(const char* path, int flags, ...) __nonnull((1)) SAME_AS("open");
int __open64(const char* path, int flags, ...) __nonnull((1)) SAME_AS("open");
int openat64(int directory, const char* path, int flags, ...) SAME_AS("openat");
int creat64(const char* path, mode_t mode) SAME_AS("creat");
int __open64_2(const char* path, int flags) SAME_AS("__open_2");
int __openat64_2(int directory, const char* path, int flags) SAME_AS("__openat_2");
int scandir64(const char* path, dirent64*** entries, int (*select)(const dirent64*),
              int (*compare)(const dirent64**, const dirent64**)) SAME_AS("scandir");
int scandirat64(int directory, const char* path, dirent64*** entries,
                int (*select)(const dirent64*), int (*compare)(const dirent64**, const dirent64**))
    SAME_AS("scandirat");
ssize_t pwrite64(int fd, const void* data, size_t size, off64_t offset) SAME_AS("pwrite");
off64_t lseek64(int fd, off64_t offset, int whence) noexcept SAME_AS("lseek");
int fstatfs64(int fd, struct statfs64* system) noexcept SAME_AS("fstatfs");
ssize_t pread64(int fd, void* data, size_t size, off64_t offset) SAME_AS("pread");
ssize_t __pread64_chk(int fd, void* data, size_t size, off64_t offset, size_t room)
    SAME_AS("__pread_chk");

}  // extern "C"
