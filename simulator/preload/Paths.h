// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>

#include "simulator/parts/Part.h"

/// Names of files, as the functions that open them see them: what is simulated, what is hidden.
namespace simulator {

/// A path below /sys.
struct SysfsPath {
  std::string full;
  std::string relative;                    ///< to the directory of its attributes
  const Attributes* attributes = nullptr;  ///< those that it is one of; null for a plain file
};

/// A name as an absolute path without detours and symbolic links; relative ones begin at an open
/// directory or, for AT_FDCWD, the working directory. Empty for a name that is null or empty.
std::string absolutePath(int directory, const char* name, bool followLast = true);

/// The simulator's view of an absolute path; nothing when it is outside /sys, which is none of the
/// simulator's business. Ends the process when it is the host's GPIO.
std::optional<SysfsPath> sysfsPath(const std::string& absolute);

/// Whether an absolute path leads to hardware by another door than /sys, which the instrument does
/// not have.
bool isHidden(const std::string& absolute);

/// Whether an open file is one that umockdev shows below /sys.
bool isInTree(int fd);

/// Where umockdev keeps a file. Opened there, umockdev takes it for no device of its own.
std::string treePath(const SysfsPath& path);

/// The name of a descriptor's file in /proc.
std::string linkOf(int fd);

/// The file behind a descriptor, from the kernel itself: umockdev shows its tree as /sys.
std::string targetOf(int fd);

bool startsWith(const std::string& text, const std::string& start);

}  // namespace simulator
