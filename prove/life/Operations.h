// SPDX-License-Identifier: MIT
#pragma once

#include <vector>

/// One operation of the library on the shipped instrument "full".
struct Operation {
  const char* name;
  long calls;                ///< how many life makes: fewer of those that cost more
  bool (*call)();            ///< false for a wrong answer
  void (*bare)() = nullptr;  ///< what it calls of libpciaccess that is kept for good
};

std::vector<Operation> operations();
