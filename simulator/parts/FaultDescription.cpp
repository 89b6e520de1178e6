// SPDX-License-Identifier: MIT
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

constexpr Group groups[] = {{"faults", false, nullptr, setFault}};

}  // namespace

const Part faultsPart = {groups, std::size(groups), nullptr, {}};

}  // namespace simulator
