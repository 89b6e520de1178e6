// SPDX-License-Identifier: MIT
#include <iterator>

#include "simulator/parts/Part.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

void setFault(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
              const std::string& value) {
  const std::size_t fault = indexOf(faultNames, key);
  if (fault == faultCount) {
    throw unknownKey();
  }
  hardware.faults[fault] = choice(value, "on", "off");
}

Entries describeFaults(const Hardware& hardware) {
  Entries entries;
  for (std::size_t fault = 0; fault < faultCount; ++fault) {
    entries.push_back({"", faultNames[fault], hardware.faults[fault] ? "on" : "off"});
  }
  return entries;
}

constexpr Group groups[] = {{"faults", false, nullptr, setFault, describeFaults}};

}  // namespace

const Part faultsPart = {groups, std::size(groups), nullptr, {}, nullptr};

}  // namespace simulator
