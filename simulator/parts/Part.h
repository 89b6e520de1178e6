// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

#include "simulator/shared/Hardware.h"

namespace simulator {

/// A kind of group in a description: how it begins, and how one of its keys is taken. Both throw
/// std::runtime_error with the reason if they cannot. A group's name is its kind or, where it
/// describes one of several, the kind, a blank and the instance.
struct Group {
  const char* kind;
  bool hasInstance;
  void (*begin)(Hardware& hardware, const std::string& instance);  ///< may be null
  void (*set)(Hardware& hardware, const std::string& instance, const std::string& key,
              const std::string& value);
};

/// The attributes of one directory below /sys whose reading or writing does something. Paths are
/// relative to the directory; results are 0 or an errno value.
struct Attributes {
  const char* directory;

  /// Whether the path is such an attribute rather than a plain file or directory.
  bool (*owns)(const std::string& path);

  /// Opens an attribute; for reading, `content` receives what it holds.
  int (*open)(const std::string& path, bool writing, std::string& content);

  /// Takes what a program has written to an attribute.
  int (*store)(const std::string& path, const std::string& text);
};

/// A part of the instrument: its groups in a description, its files below the simulated /sys, and
/// what its attributes do.
struct Part {
  const Group* groups;
  std::size_t groupCount;
  void (*createTree)(const Hardware& hardware, const std::filesystem::path& root);  ///< may be null
  Attributes attributes;  ///< without a directory: none
};

extern const Part faultsPart;
extern const Part gpioPart;
extern const Part i2cPart;
extern const Part pciPart;
extern const Part powerPart;

/// All of them.
constexpr const Part* parts[] = {&gpioPart, &i2cPart, &powerPart, &pciPart, &faultsPart};

/// Creates a file of the tree with its directories.
inline void createFile(const std::filesystem::path& file, const std::string& content = "") {
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file) << content;
}

}  // namespace simulator
