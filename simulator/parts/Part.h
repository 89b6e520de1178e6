// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "simulator/parts/Tree.h"
#include "simulator/shared/Hardware.h"
#include "simulator/shared/State.h"

namespace simulator {

/// What a group of a description says: the value of one key. A group that is there for itself has
/// an entry with an empty key.
struct Entry {
  std::string instance;
  std::string key;
  std::string value;
};

using Entries = std::vector<Entry>;

/// A kind of group in a description: how it begins, at its first mention or once more, how one of
/// its keys is taken, and what it would say of an instrument, with the values that go without
/// saying. The first two throw std::runtime_error with the reason if they cannot. A group's name is
/// its kind or, where it describes one of several, the kind, a blank and the instance.
struct Group {
  const char* kind;
  bool hasInstance;
  void (*begin)(Hardware& hardware, const std::string& instance);  ///< may be null
  void (*set)(Hardware& hardware, const std::string& instance, const std::string& key,
              const std::string& value);
  Entries (*describe)(const Hardware& hardware);
};

/// The attributes of one directory below /sys whose reading or writing does something. Paths are
/// relative to the directory; results are 0 or an errno value.
struct Attributes {
  const char* directory;

  /// Whether the path is such an attribute rather than a plain file or directory.
  bool (*owns)(const std::string& path);

  /// Opens an attribute; for reading, `content` receives what it holds.
  int (*open)(const std::string& path, bool writing, std::string& content);

  /// Takes what a program has written to an attribute, from an offset on where it is one that has
  /// offsets.
  int (*store)(const std::string& path, const std::string& text, std::size_t offset);

  /// How many bytes the attribute is, each at its offset; 0 for a text.
  std::size_t size = 0;
};

/// A part of the instrument: its groups in a description, its files below the simulated /sys, what
/// its attributes do, and what follows in it from a change anywhere.
struct Part {
  const Group* groups;
  std::size_t groupCount;
  void (*addFiles)(const Hardware& hardware, Tree& tree);  ///< may be null
  Attributes attributes;                                   ///< without a directory: none
  void (*settle)(State& state);                            ///< may be null
};

extern const Part changesPart;
extern const Part faultsPart;
extern const Part gpioPart;
extern const Part i2cPart;
extern const Part pciPart;
extern const Part powerPart;

/// All of them. What follows from a change is worked out in this order.
constexpr const Part* parts[] = {&gpioPart, &i2cPart,    &powerPart,
                                 &pciPart,  &faultsPart, &changesPart};

/// All files of an instrument.
Tree treeOf(const Hardware& hardware);

/// Works out what follows from a change.
void settle(State& state);

}  // namespace simulator
