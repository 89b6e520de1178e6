// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// One call of an operation, whose result it returns as text.
using Call = std::function<std::string()>;

/// What an operation says, as a regular expression: its result, or "throws" and an exception's
/// text.
using Said = std::string;

/// Functions, as a regular expression, whose failure an operation has to tell, and how it does.
struct Failure {
  std::string functions = {};
  Said said = {};
};

/// A public operation of the library.
struct Operation {
  const char* name;
  const char* inOrder;   ///< what it says where nothing fails
  Said said;             ///< whatever fails; want of memory is told by std::bad_alloc besides
  std::int64_t longest;  ///< milliseconds on the instrument's clock that it may take
  std::function<Call()> prepare;  ///< makes the object that the call is made on; nothing fails here
  Failure failure = {};
  bool remembers = false;  ///< what it has found once, for the process: so also what it has missed
};

std::vector<Operation> sysfsOperations();
std::vector<Operation> boardOperations();
std::vector<Operation> moduleOperations();
std::vector<Operation> pcieOperations();
