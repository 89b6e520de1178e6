// SPDX-License-Identifier: MIT
#include <iterator>

#include "simulator/parts/GpioLines.h"
#include "simulator/parts/Part.h"
#include "simulator/parts/PowerLinks.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

constexpr std::int64_t defaultDelay = 100000;
constexpr std::int64_t longAgo = 3600000000;

constexpr Key<PowerSequence> keys[] = {
    {"on-delay", &PowerSequence::onDelay, {"never"}},
    {"off-delay", &PowerSequence::offDelay, {"never"}},
    {"flicker", &PowerSequence::flickers, {"yes", "no"}},
    {"supply", &PowerSequence::failed, {"failed", "ok"}},
    {"power-enable", &PowerSequence::enableMissing, {"missing", "present"}},
    {"sequence-done", &PowerSequence::doneMissing, {"missing", "present"}},
};

std::uint32_t moduleOf(const std::string& instance) {
  const std::uint32_t module = number(instance);
  if (!power::hasLinks(module) || instance != std::to_string(module)) {
    throw std::runtime_error("only modules 1, 2, 4 and 5 have power links");
  }
  return module;
}

void begin(Hardware& hardware, const std::string& instance) {
  PowerSequence& power = hardware.power[moduleOf(instance)];
  if (power.present) {
    return;
  }
  power.present = true;
  power.expander = PowerSequence::unknown;
  power.onDelay = defaultDelay;
  power.offDelay = defaultDelay;
  power.switchedAt = -longAgo;
}

/// Switches the module: before the instrument runs, or by the line.
void setEnabled(Hardware& hardware, std::uint32_t module, bool enabled) {
  PowerSequence& power = hardware.power[module];
  if (power.connected) {
    gpio::lineOf(hardware, power::firstLine(hardware, module))->driven = enabled;
  } else {
    power.enabled = enabled;
  }
}

void set(Hardware& hardware, const std::string& instance, const std::string& key,
         const std::string& value) {
  const std::uint32_t module = moduleOf(instance);
  PowerSequence& power = hardware.power[module];
  if (key == "initially") {
    setEnabled(hardware, module, choice(value, "on", "off"));
  } else if (key == "since") {
    power.switchedAt = hardware.time - duration(value);
  } else {
    setKey(keys, power, key, value);
  }
}

Entries describe(const Hardware& hardware) {
  Entries entries;
  for (std::uint32_t module = 0; module < moduleCount; ++module) {
    const PowerSequence& power = hardware.power[module];
    const auto add = [&](const std::string& key, const std::string& value) {
      entries.push_back({std::to_string(module), key, value});
    };
    if (power.present) {
      add("", "");
      add("initially", power.enabled ? "on" : "off");
      describeKeys(keys, power, add);
      if (hardware.time - power.switchedAt < longAgo) {
        add("since", secondsText(hardware.time - power.switchedAt));
      }
    }
  }
  return entries;
}

void setClock(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
              const std::string& value) {
  const std::uint32_t module = number(key);
  if (module >= moduleCount) {
    throw std::runtime_error("not a slot from 0 to " + std::to_string(moduleCount - 1));
  }
  hardware.clocks[module] = {true, choice(value, "on", "off")};
}

Entries describeClocks(const Hardware& hardware) {
  Entries entries;
  for (std::uint32_t module = 0; module < moduleCount; ++module) {
    entries.push_back(
        {"", std::to_string(module), power::hasClock(hardware, module) ? "on" : "off"});
  }
  return entries;
}

void addFiles(const Hardware& hardware, Tree& tree) {
  for (std::uint32_t module = 0; module < moduleCount; ++module) {
    const PowerSequence& power = hardware.power[module];
    const auto addLine = [&](const std::string& link, int line) {
      addLink(tree, "/sys/platform/" + link, "/sys/class/gpio/gpio" + std::to_string(line));
    };
    if (power.connected && !power.enableMissing) {
      addLine(power::enableLink(module), power::firstLine(hardware, module));
    }
    if (power.connected && !power.doneMissing) {
      addLine(power::doneLink(module), power::firstLine(hardware, module) + 1);
    }
  }
}

constexpr Group groups[] = {{"power", true, begin, set, describe},
                            {"clock", false, nullptr, setClock, describeClocks}};

}  // namespace

const Part powerPart = {groups,
                        std::size(groups),
                        addFiles,
                        {"/sys/platform/", power::owns, power::open, power::store},
                        power::settle};

}  // namespace simulator
