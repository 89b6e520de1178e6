// SPDX-License-Identifier: MIT
// The files of soak --resume: lines are refused with a reason, or what they say is counted.
#include <stdexcept>

#include "bist/Tests.h"
#include "bist/soak/CsvFile.h"
#include "bist/soak/Statistics.h"
#include "fuzz/MemoryFile.h"

namespace {

const auto& results() {
  static const auto& all = *new auto(possibleResults(Choice()));
  return all;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(std::string(reinterpret_cast<const char*>(data), size));
  const CsvFile csv(file.name(), true);
  Statistics statistics(results());
  for (const std::string& line : csv.lines()) {
    try {
      statistics.take(line);
    } catch (const std::runtime_error&) {
    }
  }
  statistics.lines({});
  statistics.json().dump(-1, ' ', false, Json::error_handler_t::replace);  // as the outputs do
  return 0;
}
