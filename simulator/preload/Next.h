// SPDX-License-Identifier: MIT
#pragma once

namespace simulator {

/// See next().
void* nextSymbol(const char* name);

/// The function that an interposed one stands before: umockdev's, or the library's own, which may
/// be known only to the part of the program that has opened it.
template <typename Function>
Function next(Function, const char* name) {
  return reinterpret_cast<Function>(nextSymbol(name));
}

}  // namespace simulator
