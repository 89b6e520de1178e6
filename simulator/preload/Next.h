// SPDX-License-Identifier: MIT
#pragma once

#include <dlfcn.h>

namespace simulator {

/// The function that an interposed one stands before: umockdev's, or the library's own.
template <typename Function>
Function next(Function, const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace simulator
