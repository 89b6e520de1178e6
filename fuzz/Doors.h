// SPDX-License-Identifier: MIT
#pragma once

#include "fuzz/Input.h"

/// What is behind the library's doors while this exists: an input, and nothing of the machine.
///
/// Each thing that the library asks for takes the next bytes of it. A "!" is what fails: a file or
/// directory that cannot be opened, a udev object that cannot be made, an attribute or PCI device
/// that is missing, a register that cannot be read; so does all that comes after the end. A "+", or
/// nothing, is what succeeds. Then a text up to "|" is what a file or attribute holds, the names in
/// a directory or of the udev devices, with "," between them, or the bus behind a channel; a
/// register takes its bytes. What is written goes nowhere, and sleeping takes no time.
class Doors {
 public:
  explicit Doors(Input& input);
  ~Doors();
  Doors(const Doors&) = delete;
  Doors& operator=(const Doors&) = delete;
};
