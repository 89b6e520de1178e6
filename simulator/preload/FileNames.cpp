// SPDX-License-Identifier: MIT
// Files: every function that takes a file's name and neither opens nor lists it. Those that ask see
// the instrument's file; those that change one are refused, as nobody changes the files below /sys.

#include <dirent.h>
#include <fcntl.h>
#include <fts.h>
#include <ftw.h>
#include <glob.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <utime.h>
#include <wordexp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "simulator/preload/Next.h"
#include "simulator/preload/Paths.h"
#include "simulator/shared/Trace.h"

using simulator::next;

static_assert(sizeof(off_t) == sizeof(off64_t) && sizeof(struct stat) == sizeof(struct stat64) &&
                  sizeof(glob_t) == sizeof(glob64_t) &&
                  sizeof(struct statvfs) == sizeof(struct statvfs64),
              "the names for large files need definitions of their own");

namespace {

/// A file's name as it leads to the instrument's file.
class Shown {
 public:
  Shown(int directory, const char* name) : given(name) {
    if (const auto path = simulator::sysfsPath(simulator::absolutePath(directory, name))) {
      redirected = simulator::treePath(*path);
    }
  }
  explicit Shown(const char* name) : Shown(AT_FDCWD, name) {}

  operator const char*() const { return isBelowSys() ? redirected.c_str() : given; }
  bool isBelowSys() const { return !redirected.empty(); }

 private:
  const char* given;
  std::string redirected;
};

/// What a change of files comes to: refused, with EPERM, where one is the instrument's and it is
/// not the instrument that makes it.
template <typename Change>
int change(std::initializer_list<Shown> files, Change real) {
  for (const Shown& file : files) {
    if (file.isBelowSys() && !simulator::nested()) {
      errno = EPERM;
      return -1;
    }
  }
  return real();
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
  if (!shown.isBelowSys()) {
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

int faccessat(int directory, const char* path, int mode, int flags) noexcept {
  static const auto real = next(&faccessat, "faccessat");
  return real(directory, Shown(directory, path), mode, flags);
}

int eaccess(const char* path, int mode) noexcept {
  return faccessat(AT_FDCWD, path, mode, AT_EACCESS);
}

int euidaccess(const char* path, int mode) noexcept { return eaccess(path, mode); }

int statvfs(const char* path, struct statvfs* result) noexcept {
  static const auto real = next(&statvfs, "statvfs");
  return real(Shown(path), result);
}

ssize_t listxattr(const char* path, char* list, size_t size) noexcept {
  static const auto real = next(&listxattr, "listxattr");
  return real(Shown(path), list, size);
}

ssize_t llistxattr(const char* path, char* list, size_t size) noexcept {
  static const auto real = next(&llistxattr, "llistxattr");
  return real(Shown(path), list, size);
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
    if (Shown(*path).isBelowSys()) {
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
    if (Shown(result->we_wordv[result->we_offs + word]).isBelowSys()) {
      wordfree(result);
      return WRDE_NOSPACE;
    }
  }
  return 0;
}

#define REFUSED_BELOW_SYS(name, parameters, arguments, ...)       \
  int name parameters noexcept {                                  \
    static const auto real = next(&name, #name);                  \
    return change({__VA_ARGS__}, [&] { return real arguments; }); \
  }

REFUSED_BELOW_SYS(chmod, (const char* path, mode_t mode), (path, mode), Shown(path))
REFUSED_BELOW_SYS(lchmod, (const char* path, mode_t mode), (path, mode), Shown(path))
REFUSED_BELOW_SYS(fchmodat, (int directory, const char* path, mode_t mode, int flags),
                  (directory, path, mode, flags), Shown(directory, path))
REFUSED_BELOW_SYS(chown, (const char* path, uid_t user, gid_t group), (path, user, group),
                  Shown(path))
REFUSED_BELOW_SYS(lchown, (const char* path, uid_t user, gid_t group), (path, user, group),
                  Shown(path))
REFUSED_BELOW_SYS(fchownat, (int directory, const char* path, uid_t user, gid_t group, int flags),
                  (directory, path, user, group, flags), Shown(directory, path))
REFUSED_BELOW_SYS(rename, (const char* from, const char* to), (from, to), Shown(from), Shown(to))
REFUSED_BELOW_SYS(renameat, (int fromDirectory, const char* from, int toDirectory, const char* to),
                  (fromDirectory, from, toDirectory, to), Shown(fromDirectory, from),
                  Shown(toDirectory, to))
REFUSED_BELOW_SYS(renameat2,
                  (int fromDirectory, const char* from, int toDirectory, const char* to,
                   unsigned int flags),
                  (fromDirectory, from, toDirectory, to, flags), Shown(fromDirectory, from),
                  Shown(toDirectory, to))
REFUSED_BELOW_SYS(link, (const char* from, const char* to), (from, to), Shown(from), Shown(to))
REFUSED_BELOW_SYS(linkat,
                  (int fromDirectory, const char* from, int toDirectory, const char* to, int flags),
                  (fromDirectory, from, toDirectory, to, flags), Shown(fromDirectory, from),
                  Shown(toDirectory, to))
REFUSED_BELOW_SYS(symlink, (const char* target, const char* path), (target, path), Shown(path))
REFUSED_BELOW_SYS(symlinkat, (const char* target, int directory, const char* path),
                  (target, directory, path), Shown(directory, path))
REFUSED_BELOW_SYS(unlink, (const char* path), (path), Shown(path))
REFUSED_BELOW_SYS(unlinkat, (int directory, const char* path, int flags), (directory, path, flags),
                  Shown(directory, path))
REFUSED_BELOW_SYS(remove, (const char* path), (path), Shown(path))
REFUSED_BELOW_SYS(rmdir, (const char* path), (path), Shown(path))
REFUSED_BELOW_SYS(mkdir, (const char* path, mode_t mode), (path, mode), Shown(path))
REFUSED_BELOW_SYS(mkdirat, (int directory, const char* path, mode_t mode), (directory, path, mode),
                  Shown(directory, path))
REFUSED_BELOW_SYS(mknod, (const char* path, mode_t mode, dev_t device), (path, mode, device),
                  Shown(path))
REFUSED_BELOW_SYS(mknodat, (int directory, const char* path, mode_t mode, dev_t device),
                  (directory, path, mode, device), Shown(directory, path))
REFUSED_BELOW_SYS(mkfifo, (const char* path, mode_t mode), (path, mode), Shown(path))
REFUSED_BELOW_SYS(mkfifoat, (int directory, const char* path, mode_t mode), (directory, path, mode),
                  Shown(directory, path))
REFUSED_BELOW_SYS(truncate, (const char* path, off_t size), (path, size), Shown(path))
REFUSED_BELOW_SYS(utime, (const char* path, const utimbuf* times), (path, times), Shown(path))
REFUSED_BELOW_SYS(utimes, (const char* path, const timeval times[2]), (path, times), Shown(path))
REFUSED_BELOW_SYS(lutimes, (const char* path, const timeval times[2]), (path, times), Shown(path))
REFUSED_BELOW_SYS(futimesat, (int directory, const char* path, const timeval times[2]),
                  (directory, path, times), Shown(directory, path))
REFUSED_BELOW_SYS(utimensat, (int directory, const char* path, const timespec times[2], int flags),
                  (directory, path, times, flags), Shown(directory, path))
REFUSED_BELOW_SYS(setxattr,
                  (const char* path, const char* name, const void* value, size_t size, int flags),
                  (path, name, value, size, flags), Shown(path))
REFUSED_BELOW_SYS(lsetxattr,
                  (const char* path, const char* name, const void* value, size_t size, int flags),
                  (path, name, value, size, flags), Shown(path))
REFUSED_BELOW_SYS(removexattr, (const char* path, const char* name), (path, name), Shown(path))
REFUSED_BELOW_SYS(lremovexattr, (const char* path, const char* name), (path, name), Shown(path))

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

}  // extern "C"
