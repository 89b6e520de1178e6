// SPDX-License-Identifier: MIT
#pragma once

#include <vector>

/// One call of an operation or of its floor; false when it has not done its work.
using Call = bool (*)();

/// An operation of the library beside its floor: the file and udev calls that the operation cannot
/// do without, made directly, and nothing else.
struct Operation {
  const char* name;
  Call library;
  Call floor = nullptr;  ///< null for an operation that makes no such call
  double target = 0;     ///< highest ratio wanted of library to floor; 0 when none is set
};

std::vector<Operation> sysfsOperations();
std::vector<Operation> boardOperations();
std::vector<Operation> pcieOperations();
std::vector<Operation> moduleOperations();

/// Set-up of the backplane, which depends on how many I2C devices there are.
std::vector<Operation> backplaneOperations();
