// SPDX-License-Identifier: MIT
#include "simulator/shared/ProgramFile.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>

namespace simulator {

namespace {

// Files are asked for from the kernel itself: their names and contents are the host's.

bool readAll(int fd, void* place, std::size_t size, std::size_t offset) {
  return syscall(SYS_pread64, fd, place, size, offset) == static_cast<long>(size);
}

int openProgram(const char* name) {
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, name, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

bool readHeader(int fd, Elf64_Ehdr& header) {
  return readAll(fd, &header, sizeof header, 0) &&
         std::memcmp(header.e_ident, ELFMAG, SELFMAG) == 0;
}

bool isOfThisMachine(const Elf64_Ehdr& header) {
  const int self = openProgram("/proc/self/exe");
  Elf64_Ehdr own{};
  const bool read = readHeader(self, own);
  syscall(SYS_close, self);
  return read && header.e_ident[EI_CLASS] == own.e_ident[EI_CLASS] &&
         header.e_machine == own.e_machine;
}

bool namesDynamicLinker(int fd, const Elf64_Ehdr& header) {
  for (unsigned int index = 0; index < header.e_phnum; ++index) {
    Elf64_Phdr segment{};
    if (readAll(fd, &segment, sizeof segment, header.e_phoff + index * sizeof segment) &&
        segment.p_type == PT_INTERP) {
      return true;
    }
  }
  return false;
}

/// The interpreter that a script names, in `line`; null if it is no script.
const char* interpreterOf(int fd, char (&line)[256]) {
  const long length = syscall(SYS_pread64, fd, line, sizeof line - 1, 0);
  if (length < 2 || std::strncmp(line, "#!", 2) != 0) {
    return nullptr;
  }
  line[length] = '\0';
  char* const name = line + 2 + std::strspn(line + 2, " \t");
  name[std::strcspn(name, " \t\r\n")] = '\0';
  return name;
}

/// Whether the dynamic linker distrusts the environment of the program.
bool hasCapabilities(int fd) {
  return getuid() != 0 && syscall(SYS_fgetxattr, fd, "security.capability", nullptr, 0) > 0;
}

/// The kernel follows no longer chain of interpreters.
constexpr int mostInterpreters = 5;

const char* reasonAgainstFile(int fd, int interpreters);

const char* reasonAgainstName(const char* program, int interpreters) {
  const int fd = openProgram(program);
  const char* const reason = fd < 0 ? nullptr : reasonAgainstFile(fd, interpreters);
  syscall(SYS_close, fd);
  return reason;
}

const char* reasonAgainstFile(int program, int interpreters) {
  char line[256];
  if (const char* interpreter = interpreterOf(program, line)) {
    return interpreters == mostInterpreters ? nullptr
                                            : reasonAgainstName(interpreter, interpreters + 1);
  }
  Elf64_Ehdr header{};
  if (!readHeader(program, header)) {
    return nullptr;  // the kernel refuses it, or a shell takes it for a script
  }
  if (!isOfThisMachine(header)) {
    return "is built for another machine";
  }
  struct stat status {};
  if (fstat(program, &status) == 0 && (status.st_mode & (S_ISUID | S_ISGID)) != 0) {
    return "changes its user or group";
  }
  if (hasCapabilities(program)) {
    return "has capabilities of its own";
  }
  return namesDynamicLinker(program, header) ? nullptr : "is statically linked";
}

}  // namespace

const char* reasonAgainst(int program) { return reasonAgainstFile(program, 0); }

const char* reasonAgainst(const char* program) { return reasonAgainstName(program, 0); }

}  // namespace simulator
