// SPDX-License-Identifier: MIT
// Files: every function that takes a file's name and neither opens nor lists it. Those that ask see
// the instrument's file; those that change one are refused, as nobody changes the files below /sys.

#include <dirent.h>
#include <fcntl.h>
#include <fts.h>
#include <ftw.h>
#include <glob.h>
#include <mntent.h>
#include <nl_types.h>
#include <sys/fanotify.h>
#include <sys/inotify.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/swap.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>
#include <utmp.h>
#include <utmpx.h>
#include <wordexp.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <string>

#include "simulator/preload/Attributes.h"
#include "simulator/preload/Next.h"
#include "simulator/preload/Paths.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

using simulator::next;

static_assert(sizeof(off_t) == sizeof(off64_t) && sizeof(struct stat) == sizeof(struct stat64) &&
                  sizeof(glob_t) == sizeof(glob64_t) &&
                  sizeof(struct statvfs) == sizeof(struct statvfs64),
              "the names for large files need definitions of their own");

extern "C" [[noreturn]] void __chk_fail();

namespace {

/// A file's name as it leads to the instrument's file, or to none where the instrument lacks one.
/// Without a name it is an open file.
class Shown {
 public:
  Shown(int directory, const char* name, bool followLast = true) : given(name) {
    const std::string absolute = simulator::absolutePath(directory, name, followLast);
    if (simulator::isHidden(absolute)) {
      inTree = belowSys = simulator::state()->root + absolute;
    } else if (const auto path = simulator::sysfsPath(absolute)) {
      inTree = simulator::treePath(*path);
      belowSys = path->full;
    }
    isOpen = absolute.empty() && simulator::isBelowSys(directory);
  }
  explicit Shown(const char* name, bool followLast = true) : Shown(AT_FDCWD, name, followLast) {}

  /// Whether it is the instrument that decides about the file.
  bool isInstruments() const { return isOpen || !inTree.empty(); }

  /// For functions that ask the kernel themselves.
  operator const char*() const { return inTree.empty() ? given : inTree.c_str(); }

  /// For those that umockdev shows the tree.
  const char* name() const { return inTree.empty() ? given : belowSys.c_str(); }

 private:
  const char* given;
  bool isOpen = false;
  std::string inTree;
  std::string belowSys;
};

constexpr bool itself = false;  // the symbolic link that the name is

bool follows(int flags) { return (flags & AT_SYMLINK_NOFOLLOW) == 0; }

/// What a change of files comes to: refused where one is the instrument's and it is not the
/// instrument that makes it.
template <typename Change>
int change(int error, std::initializer_list<Shown> files, Change real) {
  for (const Shown& file : files) {
    if (file.isInstruments() && !simulator::nested()) {
      errno = error;
      return -1;
    }
  }
  return real();
}

/// Nobody makes one more door: a device by another name, or one more of the file systems that show
/// the hardware.
bool isDoor(mode_t mode) { return S_ISCHR(mode) || S_ISBLK(mode); }

bool isDoor(const char* fileSystem) {
  const auto is = [fileSystem](const char* name) { return std::strcmp(fileSystem, name) == 0; };
  constexpr const char* doors[] = {"sysfs", "devtmpfs", "proc", "debugfs"};
  return fileSystem != nullptr && std::any_of(std::begin(doors), std::end(doors), is);
}

/// Ends a program that says it has more room than there is, as its fortified calls do.
void requireRoom(size_t size, size_t room) {
  if (size > room) {
    __chk_fail();
  }
}

int refuseDoor() {
  errno = EPERM;
  return -1;
}

/// A walk through a directory of the tree, whose files are shown by their names below /sys.
struct Walk {
  int (*take)(const char*, const struct stat*, int);
  int (*takeNested)(const char*, const struct stat*, int, FTW*);
  std::size_t root;  ///< length of what the tree's names have in front
};

thread_local Walk walk;

/// Walks by `real`, which calls take or takeNested of the walk with each file's name in the tree.
template <typename Real>
int walkThrough(const char* directory, Walk wanted, Real real) {
  const Shown shown(directory);
  if (!shown.isInstruments()) {
    return real(directory, false);
  }
  const std::string tree = static_cast<const char*>(shown);
  wanted.root = tree.size() - simulator::absolutePath(AT_FDCWD, directory).size();
  const Walk outer = walk;  // a walk's function may start another
  walk = wanted;
  const int result = real(tree.c_str(), true);
  walk = outer;
  return result;
}

}  // namespace

extern "C" {

#define SHOWN(type, name, parameters, arguments)   \
  type name parameters {                           \
    static const auto real = next(&(name), #name); \
    return real arguments;                         \
  }

SHOWN(int, stat, (const char* path, struct stat* result) noexcept, (Shown(path).name(), result))
SHOWN(int, lstat, (const char* path, struct stat* result) noexcept,
      (Shown(path, itself).name(), result))
SHOWN(int, fstatat, (int directory, const char* path, struct stat* result, int flags) noexcept,
      (directory, Shown(directory, path, follows(flags)).name(), result, flags))
SHOWN(int, statx,
      (int directory, const char* path, int flags, unsigned int mask,
       struct statx* result) noexcept,
      (directory, Shown(directory, path, follows(flags)).name(), flags, mask, result))
SHOWN(int, access, (const char* path, int mode) noexcept, (Shown(path).name(), mode))
SHOWN(int, faccessat, (int directory, const char* path, int mode, int flags) noexcept,
      (directory, Shown(directory, path, follows(flags)), mode, flags))
SHOWN(ssize_t, readlink, (const char* path, char* target, size_t size) noexcept,
      (Shown(path, itself).name(), target, size))
SHOWN(ssize_t, readlinkat, (int directory, const char* path, char* target, size_t size) noexcept,
      (directory, Shown(directory, path, itself).name(), target, size))
SHOWN(char*, realpath, (const char* path, char* result) noexcept, (Shown(path).name(), result))
SHOWN(char*, canonicalize_file_name, (const char* path) noexcept, (Shown(path).name()))
SHOWN(int, chdir, (const char* path) noexcept, (Shown(path).name()))
SHOWN(int, statfs, (const char* path, struct statfs* result) noexcept, (Shown(path).name(), result))
SHOWN(int, statvfs, (const char* path, struct statvfs* result) noexcept, (Shown(path), result))
SHOWN(long, pathconf, (const char* path, int name) noexcept, (Shown(path), name))
SHOWN(key_t, ftok, (const char* path, int number) noexcept, (Shown(path), number))
SHOWN(ssize_t, getxattr, (const char* path, const char* name, void* value, size_t size) noexcept,
      (Shown(path).name(), name, value, size))
SHOWN(ssize_t, lgetxattr, (const char* path, const char* name, void* value, size_t size) noexcept,
      (Shown(path, itself).name(), name, value, size))
SHOWN(ssize_t, listxattr, (const char* path, char* list, size_t size) noexcept,
      (Shown(path), list, size))
SHOWN(ssize_t, llistxattr, (const char* path, char* list, size_t size) noexcept,
      (Shown(path, itself), list, size))
SHOWN(int, inotify_add_watch, (int fd, const char* path, uint32_t mask) noexcept,
      (fd, Shown(path).name(), mask))
SHOWN(int, open_tree, (int directory, const char* path, unsigned int flags) noexcept,
      (directory, Shown(directory, path, follows(static_cast<int>(flags))), flags))

int eaccess(const char* path, int mode) noexcept {
  return faccessat(AT_FDCWD, path, mode, AT_EACCESS);
}

int euidaccess(const char* path, int mode) noexcept { return eaccess(path, mode); }

// umockdev shows the working directory to getcwd alone.

char* getwd(char* buffer) noexcept { return getcwd(buffer, PATH_MAX); }

char* get_current_dir_name() noexcept { return getcwd(nullptr, 0); }

// What these become in programs built with -D_FORTIFY_SOURCE.
char* __getwd_chk(char* buffer, size_t room) {
  return getcwd(buffer, std::min<size_t>(room, PATH_MAX));
}

ssize_t __readlink_chk(const char* path, char* target, size_t size, size_t room) {
  requireRoom(size, room);
  return readlink(path, target, size);
}

ssize_t __readlinkat_chk(int directory, const char* path, char* target, size_t size, size_t room) {
  requireRoom(size, room);
  return readlinkat(directory, path, target, size);
}

char* __realpath_chk(const char* path, char* result, size_t /*room*/) {
  return realpath(path, result);
}

// What these were in programs built with older C libraries.
int __xstat(int /*version*/, const char* path, struct stat* result) { return stat(path, result); }

int __lxstat(int /*version*/, const char* path, struct stat* result) { return lstat(path, result); }

int __fxstatat(int /*version*/, int directory, const char* path, struct stat* result, int flags) {
  return fstatat(directory, path, result, flags);
}

int __xmknod(int /*version*/, const char* path, mode_t mode, const dev_t* device) {
  return mknod(path, mode, *device);
}

int __xmknodat(int /*version*/, int directory, const char* path, mode_t mode, const dev_t* device) {
  return mknodat(directory, path, mode, *device);
}

// The C library's own pattern matching and walks ask the kernel directly.

int glob(const char* pattern, int flags, int (*failed)(const char*, int), glob_t* result) noexcept {
  static const auto real = next(&glob, "glob");
  if ((flags & GLOB_ALTDIRFUNC) == 0) {
    result->gl_opendir = [](const char* path) -> void* { return opendir(path); };
    result->gl_readdir = [](void* directory) { return readdir(static_cast<DIR*>(directory)); };
    result->gl_closedir = [](void* directory) { closedir(static_cast<DIR*>(directory)); };
    result->gl_stat = [](const char* path, struct stat* status) { return stat(path, status); };
    result->gl_lstat = [](const char* path, struct stat* status) { return lstat(path, status); };
  }
  return real(pattern, flags | GLOB_ALTDIRFUNC, failed, result);
}

int ftw(const char* directory, int (*take)(const char*, const struct stat*, int), int descriptors) {
  static const auto real = next(&ftw, "ftw");
  return walkThrough(directory, {take, nullptr, 0}, [&](const char* path, bool inTree) {
    return real(
        path,
        !inTree ? take
                : [](const char* file, const struct stat* status,
                     int kind) { return walk.take(file + walk.root, status, kind); },
        descriptors);
  });
}

int nftw(const char* directory, int (*take)(const char*, const struct stat*, int, FTW*),
         int descriptors, int flags) {
  static const auto real = next(&nftw, "nftw");
  return walkThrough(directory, {nullptr, take, 0}, [&](const char* path, bool inTree) {
    return real(path,
                !inTree ? take
                        : [](const char* file, const struct stat* status, int kind, FTW* place) {
                            FTW shown = *place;
                            shown.base -= static_cast<int>(walk.root);
                            return walk.takeNested(file + walk.root, status, kind, &shown);
                          },
                descriptors, flags);
  });
}

// These show the names that they were given, so that names in the tree would come out of them.

FTS* fts_open(char* const* paths, int options, int (*compare)(const FTSENT**, const FTSENT**)) {
  static const auto real = next(&fts_open, "fts_open");
  for (char* const* path = paths; *path != nullptr; ++path) {
    if (Shown(*path).isInstruments()) {
      errno = EACCES;
      return nullptr;
    }
  }
  return real(paths, options, compare);
}

int wordexp(const char* words, wordexp_t* result, int flags) {
  static const auto real = next(&wordexp, "wordexp");
  const int error = real(words, result, flags);
  if (error != 0 || std::strpbrk(words, "*?[") == nullptr) {
    return error;
  }
  for (std::size_t word = 0; word < result->we_wordc; ++word) {
    if (Shown(result->we_wordv[result->we_offs + word]).isInstruments()) {
      wordfree(result);
      return WRDE_NOSPACE;
    }
  }
  return 0;
}

// These open or take what they are given by calls that could not be answered here.

std::FILE* setmntent(const char* path, const char* mode) noexcept {
  static const auto real = next(&setmntent, "setmntent");
  return change(EACCES, {Shown(path)}, [] { return 0; }) == 0 ? real(path, mode) : nullptr;
}

nl_catd catopen(const char* path, int flags) {
  static const auto real = next(&catopen, "catopen");
  const bool refused = change(EACCES, {Shown(path)}, [] { return 0; }) != 0;
  return refused ? reinterpret_cast<nl_catd>(-1)  // NOLINT(performance-no-int-to-ptr)
                 : real(path, flags);
}

void updwtmp(const char* path, const utmp* record) noexcept {
  static const auto real = next(&updwtmp, "updwtmp");
  change(EACCES, {Shown(path)}, [&] { return real(path, record), 0; });
}

char* mkdtemp(char* pattern) noexcept {
  static const auto real = next(&mkdtemp, "mkdtemp");
  return change(EPERM, {Shown(pattern)}, [] { return 0; }) == 0 ? real(pattern) : nullptr;
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  static const auto real = next(&bind, "bind");
  const bool isFile = size > sizeof(sa_family_t) && address->sa_family == AF_UNIX;
  const std::string name =
      isFile ? std::string(address->sa_data, strnlen(address->sa_data, size - sizeof(sa_family_t)))
             : "";
  return change(EPERM, {Shown(AT_FDCWD, name.c_str())}, [&] { return real(fd, address, size); });
}

#define REFUSED(error, name, parameters, arguments, ...)                 \
  int name parameters {                                                  \
    static const auto real = next(&name, #name);                         \
    return change(error, {__VA_ARGS__}, [&] { return real arguments; }); \
  }

REFUSED(EPERM, chmod, (const char* path, mode_t mode) noexcept, (path, mode), Shown(path))
REFUSED(EPERM, lchmod, (const char* path, mode_t mode) noexcept, (path, mode), Shown(path, itself))
REFUSED(EPERM, fchmod, (int fd, mode_t mode) noexcept, (fd, mode), Shown(fd, nullptr))
REFUSED(EPERM, fchmodat, (int directory, const char* path, mode_t mode, int flags) noexcept,
        (directory, path, mode, flags), Shown(directory, path, follows(flags)))
REFUSED(EPERM, chown, (const char* path, uid_t user, gid_t group) noexcept, (path, user, group),
        Shown(path))
REFUSED(EPERM, lchown, (const char* path, uid_t user, gid_t group) noexcept, (path, user, group),
        Shown(path, itself))
REFUSED(EPERM, fchown, (int fd, uid_t user, gid_t group) noexcept, (fd, user, group),
        Shown(fd, nullptr))
REFUSED(EPERM, fchownat,
        (int directory, const char* path, uid_t user, gid_t group, int flags) noexcept,
        (directory, path, user, group, flags), Shown(directory, path, follows(flags)))
REFUSED(EPERM, rename, (const char* from, const char* to) noexcept, (from, to), Shown(from, itself),
        Shown(to, itself))
REFUSED(EPERM, renameat,
        (int fromDirectory, const char* from, int toDirectory, const char* to) noexcept,
        (fromDirectory, from, toDirectory, to), Shown(fromDirectory, from, itself),
        Shown(toDirectory, to, itself))
REFUSED(EPERM, renameat2,
        (int fromDirectory, const char* from, int toDirectory, const char* to,
         unsigned int flags) noexcept,
        (fromDirectory, from, toDirectory, to, flags), Shown(fromDirectory, from, itself),
        Shown(toDirectory, to, itself))
REFUSED(EPERM, link, (const char* from, const char* to) noexcept, (from, to), Shown(from, itself),
        Shown(to, itself))
REFUSED(EPERM, linkat,
        (int fromDirectory, const char* from, int toDirectory, const char* to, int flags) noexcept,
        (fromDirectory, from, toDirectory, to, flags),
        Shown(fromDirectory, from, (flags & AT_SYMLINK_FOLLOW) != 0),
        Shown(toDirectory, to, itself))
REFUSED(EPERM, symlink, (const char* target, const char* path) noexcept, (target, path),
        Shown(path, itself))
REFUSED(EPERM, symlinkat, (const char* target, int directory, const char* path) noexcept,
        (target, directory, path), Shown(directory, path, itself))
REFUSED(EPERM, unlink, (const char* path) noexcept, (path), Shown(path, itself))
REFUSED(EPERM, unlinkat, (int directory, const char* path, int flags) noexcept,
        (directory, path, flags), Shown(directory, path, itself))
REFUSED(EPERM, remove, (const char* path) noexcept, (path), Shown(path, itself))
REFUSED(EPERM, rmdir, (const char* path) noexcept, (path), Shown(path, itself))
REFUSED(EPERM, mkdir, (const char* path, mode_t mode) noexcept, (path, mode), Shown(path, itself))
REFUSED(EPERM, mkdirat, (int directory, const char* path, mode_t mode) noexcept,
        (directory, path, mode), Shown(directory, path, itself))
REFUSED(EPERM, mkfifo, (const char* path, mode_t mode) noexcept, (path, mode), Shown(path, itself))
REFUSED(EPERM, mkfifoat, (int directory, const char* path, mode_t mode) noexcept,
        (directory, path, mode), Shown(directory, path, itself))
REFUSED(EPERM, truncate, (const char* path, off_t size) noexcept, (path, size), Shown(path))
REFUSED(EPERM, utime, (const char* path, const utimbuf* times) noexcept, (path, times), Shown(path))
REFUSED(EPERM, utimes, (const char* path, const timeval times[2]) noexcept, (path, times),
        Shown(path))
REFUSED(EPERM, lutimes, (const char* path, const timeval times[2]) noexcept, (path, times),
        Shown(path, itself))
REFUSED(EPERM, futimes, (int fd, const timeval times[2]) noexcept, (fd, times), Shown(fd, nullptr))
REFUSED(EPERM, futimens, (int fd, const timespec times[2]) noexcept, (fd, times),
        Shown(fd, nullptr))
REFUSED(EPERM, futimesat, (int directory, const char* path, const timeval times[2]) noexcept,
        (directory, path, times), Shown(directory, path))
REFUSED(EPERM, utimensat,
        (int directory, const char* path, const timespec times[2], int flags) noexcept,
        (directory, path, times, flags), Shown(directory, path, follows(flags)))
REFUSED(EPERM, setxattr,
        (const char* path, const char* name, const void* value, size_t size, int flags) noexcept,
        (path, name, value, size, flags), Shown(path))
REFUSED(EPERM, lsetxattr,
        (const char* path, const char* name, const void* value, size_t size, int flags) noexcept,
        (path, name, value, size, flags), Shown(path, itself))
REFUSED(EPERM, fsetxattr,
        (int fd, const char* name, const void* value, size_t size, int flags) noexcept,
        (fd, name, value, size, flags), Shown(fd, nullptr))
REFUSED(EPERM, removexattr, (const char* path, const char* name) noexcept, (path, name),
        Shown(path))
REFUSED(EPERM, lremovexattr, (const char* path, const char* name) noexcept, (path, name),
        Shown(path, itself))
REFUSED(EPERM, fremovexattr, (int fd, const char* name) noexcept, (fd, name), Shown(fd, nullptr))
REFUSED(EOPNOTSUPP, fallocate, (int fd, int mode, off_t offset, off_t size),
        (fd, mode, offset, size), Shown(fd, nullptr))
REFUSED(EACCES, mkstemp, (char* pattern), (pattern), Shown(pattern))
REFUSED(EACCES, mkostemp, (char* pattern, int flags), (pattern, flags), Shown(pattern))
REFUSED(EACCES, mkstemps, (char* pattern, int length), (pattern, length), Shown(pattern))
REFUSED(EACCES, mkostemps, (char* pattern, int length, int flags), (pattern, length, flags),
        Shown(pattern))
REFUSED(EPERM, chroot, (const char* path) noexcept, (path), Shown(path))
REFUSED(EPERM, umount, (const char* path) noexcept, (path), Shown(path))
REFUSED(EPERM, umount2, (const char* path, int flags) noexcept, (path, flags), Shown(path))
REFUSED(EPERM, pivot_root, (const char* root, const char* before) noexcept, (root, before),
        Shown(root), Shown(before))
REFUSED(EPERM, move_mount,
        (int fromDirectory, const char* from, int toDirectory, const char* to,
         unsigned int flags) noexcept,
        (fromDirectory, from, toDirectory, to, flags), Shown(fromDirectory, from),
        Shown(toDirectory, to))
REFUSED(EPERM, mount_setattr,
        (int directory, const char* path, unsigned int flags, mount_attr* attributes,
         size_t size) noexcept,
        (directory, path, flags, attributes, size), Shown(directory, path))
REFUSED(EPERM, fspick, (int directory, const char* path, unsigned int flags) noexcept,
        (directory, path, flags), Shown(directory, path))
REFUSED(EPERM, swapon, (const char* path, int flags) noexcept, (path, flags), Shown(path))
REFUSED(EPERM, swapoff, (const char* path) noexcept, (path), Shown(path))
REFUSED(EPERM, acct, (const char* path) noexcept, (path), Shown(path))
REFUSED(EACCES, utmpname, (const char* path) noexcept, (path), Shown(path))
REFUSED(EPERM, fanotify_mark,
        (int fd, unsigned int flags, uint64_t mask, int directory, const char* path) noexcept,
        (fd, flags, mask, directory, path), Shown(directory, path))
REFUSED(EOPNOTSUPP, name_to_handle_at,
        (int directory, const char* path, file_handle* handle, int* mountId, int flags) noexcept,
        (directory, path, handle, mountId, flags),
        Shown(directory, path, (flags & AT_SYMLINK_FOLLOW) != 0))

int mknodat(int directory, const char* path, mode_t mode, dev_t device) noexcept {
  static const auto real = next(&mknodat, "mknodat");
  return simulator::attached() && isDoor(mode)
             ? refuseDoor()
             : change(EPERM, {Shown(directory, path, itself)},
                      [&] { return real(directory, path, mode, device); });
}

int mknod(const char* path, mode_t mode, dev_t device) noexcept {
  return mknodat(AT_FDCWD, path, mode, device);
}

int mount(const char* source, const char* path, const char* fileSystem, unsigned long flags,
          const void* data) noexcept {
  static const auto real = next(&mount, "mount");
  constexpr unsigned long withoutType = MS_REMOUNT | MS_BIND | MS_MOVE;
  return simulator::attached() && (flags & withoutType) == 0 && isDoor(fileSystem)
             ? refuseDoor()
             : change(EPERM, {Shown(source), Shown(path)},
                      [&] { return real(source, path, fileSystem, flags, data); });
}

int fsopen(const char* fileSystem, unsigned int flags) noexcept {
  static const auto real = next(&fsopen, "fsopen");
  return simulator::attached() && isDoor(fileSystem) ? refuseDoor() : real(fileSystem, flags);
}

int posix_fallocate(int fd, off_t offset, off_t size) {
  static const auto real = next(&posix_fallocate, "posix_fallocate");
  return Shown(fd, nullptr).isInstruments() ? EOPNOTSUPP : real(fd, offset, size);
}

#define SAME_AS(name) __attribute__((alias(name)))

int glob64(const char* pattern, int flags, int (*failed)(const char*, int),
           glob64_t* result) noexcept SAME_AS("glob");
int ftw64(const char* directory, int (*take)(const char*, const struct stat64*, int),
          int descriptors) SAME_AS("ftw");
int nftw64(const char* directory, int (*take)(const char*, const struct stat64*, int, FTW*),
           int descriptors, int flags) SAME_AS("nftw");
FTS64* fts64_open(char* const* paths, int options,
                  int (*compare)(const FTSENT64**, const FTSENT64**)) SAME_AS("fts_open");
int statvfs64(const char* path, struct statvfs64* result) noexcept SAME_AS("statvfs");
int truncate64(const char* path, off64_t size) noexcept SAME_AS("truncate");
int stat64(const char* path, struct stat64* result) noexcept SAME_AS("stat");
int lstat64(const char* path, struct stat64* result) noexcept SAME_AS("lstat");
int fstatat64(int directory, const char* path, struct stat64* result, int flags) noexcept
    SAME_AS("fstatat");
int __xstat64(int version, const char* path, struct stat64* result) SAME_AS("__xstat");
int __lxstat64(int version, const char* path, struct stat64* result) SAME_AS("__lxstat");
int __fxstatat64(int version, int directory, const char* path, struct stat64* result, int flags)
    SAME_AS("__fxstatat");
int statfs64(const char* path, struct statfs64* result) noexcept SAME_AS("statfs");
int __statfs(const char* path, struct statfs* result) noexcept __nonnull((1, 2)) SAME_AS("statfs");
int fallocate64(int fd, int mode, off64_t offset, off64_t size) SAME_AS("fallocate");
int posix_fallocate64(int fd, off64_t offset, off64_t size) SAME_AS("posix_fallocate");
int mkstemp64(char* pattern) SAME_AS("mkstemp");
int mkostemp64(char* pattern, int flags) SAME_AS("mkostemp");
int mkstemps64(char* pattern, int length) SAME_AS("mkstemps");
int mkostemps64(char* pattern, int length, int flags) SAME_AS("mkostemps");
int utmpxname(const char* path) SAME_AS("utmpname");
void updwtmpx(const char* path, const utmpx* record) SAME_AS("updwtmp");
std::FILE* __setmntent(const char* path, const char* mode) noexcept SAME_AS("setmntent");

}  // extern "C"
