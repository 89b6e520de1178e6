// SPDX-License-Identifier: MIT
// Shows files as the kernel has them, by system calls alone: so it leaves the instrument that it is
// started on. A line each: the name, "r" where the file system can only be read, the mode, and what
// a directory or a file holds.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::string entriesOf(int fd) {
  std::string names;
  alignas(dirent64) char entries[8192];
  for (long size = 0; (size = syscall(SYS_getdents64, fd, entries, sizeof entries)) > 0;) {
    for (long place = 0; place < size;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(entries + place);
      names += entry->d_name[0] == '.' ? "" : std::string(" ") + entry->d_name;
      place += entry->d_reclen;
    }
  }
  return names;
}

std::string contentOf(int fd) {
  char content[4096];
  const long size = syscall(SYS_read, fd, content, sizeof content);
  return size <= 0 ? "" : " " + std::string(content, static_cast<std::size_t>(size));
}

void show(const char* name) {
  const long opened = syscall(SYS_openat, AT_FDCWD, name, O_RDONLY | O_CLOEXEC);
  if (opened < 0) {
    std::printf("%s: %s\n", name, std::strerror(errno));
    return;
  }
  const int fd = static_cast<int>(opened);
  struct stat status {};
  struct statfs system {};
  fstat(fd, &status);
  syscall(SYS_fstatfs, fd, &system);
  const std::string held = S_ISDIR(status.st_mode) ? entriesOf(fd) : contentOf(fd);
  std::printf("%s: %s%o%s\n", name, (system.f_flags & ST_RDONLY) != 0 ? "r" : "",
              status.st_mode & 07777, held.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    show(argv[index]);
  }
}
