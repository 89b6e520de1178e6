// SPDX-License-Identifier: MIT
// Traces that talvero-sim --expect compares: the expected one before "|", the actual one after it.
#include <algorithm>
#include <sstream>

#include "fuzz/MemoryFile.h"
#include "simulator/instrument/ExpectedTrace.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string expected = input.text('|');
  std::istringstream text(input.text('\0'));
  std::vector<std::string> actual;
  for (std::string line; std::getline(text, line);) {
    actual.push_back(line);
  }
  const MemoryFile file(expected);
  const std::string difference = simulator::ExpectedTrace(file.name()).differenceFrom(actual);
  require(difference.empty() || std::count(difference.begin(), difference.end(), '\n') == 3);
  const MemoryFile same(text.str());
  require(simulator::ExpectedTrace(same.name()).differenceFrom(actual).empty());
  return 0;
}
