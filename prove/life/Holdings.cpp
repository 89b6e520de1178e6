// SPDX-License-Identifier: MIT
#include "prove/life/Holdings.h"

#include <malloc.h>
#include <pciaccess.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

namespace fs = std::filesystem;

template <typename Iterator>
long entriesOf(const char* directory) {
  return std::distance(Iterator(directory), Iterator());
}

long takenBytes() { return static_cast<long>(mallinfo2().uordblks); }

long residentBytes() {
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages >> pages;
  return pages * sysconf(_SC_PAGESIZE);
}

const char* instrument() { return std::getenv("UMOCKDEV_DIR"); }

long instrumentBytes() {
  long bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(instrument())) {
    bytes += entry.is_regular_file() ? static_cast<long>(entry.file_size()) : 0;
  }
  return bytes;
}

// Sanitizers keep memory that was given back.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool memoryIsCounted = false;
#else
constexpr bool memoryIsCounted = true;
#endif

/// What is held, and how much more of it is no growth yet.
const struct Holding {
  const char* name;
  long allowed;
  long (*held)();
  bool isMemory = false;
} holdings[] = {
    {"bytes of memory taken", 2048, takenBytes, true},
    {"resident bytes", 512L * 1024, residentBytes, true},
    {"descriptors", 0, [] { return entriesOf<fs::directory_iterator>("/proc/self/fd"); }},
    {"threads", 0, [] { return entriesOf<fs::directory_iterator>("/proc/self/task"); }},
    {"files of the instrument", 0,
     [] { return entriesOf<fs::recursive_directory_iterator>(instrument()); }},
    {"bytes in the instrument's files", 0, instrumentBytes},
};

}  // namespace

std::vector<long> heldNow() {
  std::vector<long> held;
  for (const Holding& holding : holdings) {
    held.push_back(holding.held());
  }
  return held;
}

void initialise() { pci_system_init(); }

void initialiseAndAsk() {
  pci_system_init();
  pci_device_get_parent_bridge(pci_device_find_by_slot(0, 2, 1, 0));
}

long keptBy(void (*call)()) {
  constexpr long count = 100;
  call();
  const long before = takenBytes();
  for (long time = 0; time < count; ++time) {
    call();
  }
  return (takenBytes() - before + count - 1) / count;
}

std::vector<std::string> grownSince(const std::vector<long>& before, long knownBytes) {
  const std::vector<long> after = heldNow();
  std::vector<std::string> grown;
  for (std::size_t index = 0; index < std::size(holdings); ++index) {
    const long known = holdings[index].isMemory ? knownBytes : 0;
    const long more = after[index] - before[index] - known;
    const bool counted = memoryIsCounted || !holdings[index].isMemory;
    if (counted && more > holdings[index].allowed) {
      grown.push_back(std::to_string(more) + " " + holdings[index].name + " more");
    }
  }
  return grown;
}
