// SPDX-License-Identifier: MIT
// The files of --expect: refused with their name, or what they say is compared.
#include <stdexcept>

#include "bist/Expectation.h"
#include "bist/Ports.h"
#include "fuzz/MemoryFile.h"

namespace {

void use(Expectation expectation) {
  const Json found = {{"format", 1},
                      {"board", 34},
                      {"modules", {{"0", true}, {"1", false}}},
                      {"controllers", {{"0", true}, {"5", false}}},
                      {"links", {{"DownstreamPort1", "5 GT/s x1"}, {"DownstreamPort9", "down"}}}};
  for (const PCIeDownstreamPorts port : mainPorts) {
    expectation.limitsOf(port);
    expectation.expectsNoLink(port);
  }
  const auto lines = expectation.compare(found);
  require(expectation.comparesSomething() || lines.empty());
  expectation.limits().dump();
  expectation.leaveOut("3");
  expectation.leaveOut("DownstreamPort5");
  require(expectation.compare(found).size() <= lines.size());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(std::string(reinterpret_cast<const char*>(data), size));
  try {
    use(Expectation(file.name()));
  } catch (const std::runtime_error& reason) {
    require(std::string(reason.what()).rfind(file.name(), 0) == 0);
  }
  return 0;
}
