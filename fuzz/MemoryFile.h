// SPDX-License-Identifier: MIT
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz/Input.h"

/// A file that is in memory alone, and can be opened by its name.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& content) : file(memfd_create("input", MFD_CLOEXEC)) {
    require(file >= 0);
    require(::write(file, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
  }
  ~MemoryFile() { ::close(file); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string name() const { return "/proc/self/fd/" + std::to_string(file); }

 private:
  int file;
};
