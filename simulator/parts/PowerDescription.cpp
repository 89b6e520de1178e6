// SPDX-License-Identifier: MIT
#include "simulator/parts/Part.h"
#include "simulator/parts/PowerLinks.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

constexpr std::int64_t defaultDelay = 100000;
constexpr std::int64_t longAgo = 3600000000;

constexpr Key<PowerSequence> keys[] = {
    {"initially", &PowerSequence::enabled, {"on", "off"}},
    {"on-delay", &PowerSequence::onDelay, {"never"}},
    {"off-delay", &PowerSequence::offDelay, {"never"}},
    {"flicker", &PowerSequence::flickers, {"yes", "no"}},
    {"power-enable", &PowerSequence::enableMissing, {"missing", "present"}},
    {"sequence-done", &PowerSequence::doneMissing, {"missing", "present"}},
};

PowerSequence& powerSequence(Hardware& hardware, const std::string& instance) {
  const std::uint32_t module = number(instance);
  if (!power::hasLinks(module)) {
    throw std::runtime_error("only modules 1, 2, 4 and 5 have power links");
  }
  return hardware.power[module];
}

void begin(Hardware& hardware, const std::string& instance) {
  PowerSequence& power = powerSequence(hardware, instance);
  power.present = true;
  power.onDelay = defaultDelay;
  power.offDelay = defaultDelay;
}

void set(Hardware& hardware, const std::string& instance, const std::string& key,
         const std::string& value) {
  PowerSequence& power = powerSequence(hardware, instance);
  setKey(keys, power, key, value);
  if (key == "initially") {
    power.switchedAt = -longAgo;
  }
}

void createTree(const Hardware& hardware, const std::filesystem::path& root) {
  const std::filesystem::path directory = root / "sys/platform";
  for (unsigned int module = 0; module < moduleCount; ++module) {
    const PowerSequence& power = hardware.power[module];
    if (power.present && !power.enableMissing) {
      createFile(directory / power::enableLink(module) / "value");
    }
    if (power.present && !power.doneMissing) {
      createFile(directory / power::doneLink(module) / "value");
    }
  }
}

constexpr Group groups[] = {{"power", true, begin, set}};

}  // namespace

const Part powerPart = {groups,
                        std::size(groups),
                        createTree,
                        {"/sys/platform/", power::owns, power::open, power::store}};

}  // namespace simulator
