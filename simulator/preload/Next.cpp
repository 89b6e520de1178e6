// SPDX-License-Identifier: MIT
#include "simulator/preload/Next.h"

#include <dlfcn.h>
#include <link.h>

#include <string>
#include <vector>

namespace simulator {

namespace {

int addName(dl_phdr_info* library, std::size_t /*size*/, void* names) {
  static_cast<std::vector<std::string>*>(names)->emplace_back(library->dlpi_name);
  return 0;
}

/// The library that has a symbol.
std::string libraryOf(const void* symbol) {
  Dl_info library{};
  return symbol != nullptr && dladdr(symbol, &library) != 0 ? library.dli_fname : "";
}

/// A symbol of this very library, which stays from now on: its address is kept.
void* symbolIn(const std::string& library, const char* name) {
  void* const handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_NOLOAD);
  if (handle == nullptr) {
    return nullptr;
  }
  void* const symbol = dlsym(handle, name);
  if (libraryOf(symbol) != library) {
    dlclose(handle);
    return nullptr;
  }
  return symbol;
}

}  // namespace

void* nextSymbol(const char* name) {
  if (void* const symbol = dlsym(RTLD_NEXT, name)) {
    return symbol;
  }
  std::vector<std::string> libraries;
  dl_iterate_phdr(addName, &libraries);
  const std::string own = libraryOf(reinterpret_cast<const void*>(&nextSymbol));
  for (const std::string& library : libraries) {
    void* const symbol = library.empty() || library == own ? nullptr : symbolIn(library, name);
    if (symbol != nullptr) {
      return symbol;
    }
  }
  return nullptr;
}

}  // namespace simulator
