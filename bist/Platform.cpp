// SPDX-License-Identifier: MIT
#include "bist/Platform.h"

#include <dlfcn.h>
#include <link.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <iterator>

namespace {

/// One operation of each class, as the linker knows it.
constexpr const char* operations[] = {
    "_ZN7SpbFPGA23TurnOnModuleClockSourceEj",
    "_ZN6I2CDev26FindI2CBusNameOfMuxChannelENSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi"};

/// The function by which a library says what it is, if it does.
constexpr char noteName[] = "talveroPlatformNote";

/// A symbol of the very file, not of one that it needs.
void* ownSymbol(void* library, const char* file, const char* name) {
  void* const symbol = dlsym(library, name);
  Dl_info info{};
  const bool own =
      symbol != nullptr && dladdr(symbol, &info) != 0 && std::strcmp(info.dli_fname, file) == 0;
  return own ? symbol : nullptr;
}

int addLibrary(dl_phdr_info* info, std::size_t /*size*/, void* list) {
  void* const library = dlopen(info->dlpi_name, RTLD_LAZY | RTLD_NOLOAD);
  if (library == nullptr) {
    return 0;
  }
  const auto defines = [&](const char* operation) {
    return ownSymbol(library, info->dlpi_name, operation) != nullptr;
  };
  if (std::any_of(std::begin(operations), std::end(operations), defines)) {
    std::string text = std::filesystem::path(info->dlpi_name).filename().string();
    if (void* const note = ownSymbol(library, info->dlpi_name, noteName)) {
      text += std::string(" (") + reinterpret_cast<const char* (*)()>(note)() + ")";
    }
    static_cast<std::vector<std::string>*>(list)->push_back(text);
  }
  dlclose(library);
  return 0;
}

}  // namespace

std::vector<std::string> platformLibraries() {
  std::vector<std::string> libraries;
  dl_iterate_phdr(addLibrary, &libraries);  // in the order in which they are asked for a name
  return libraries;
}
