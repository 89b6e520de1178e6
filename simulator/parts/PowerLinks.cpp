// SPDX-License-Identifier: MIT
#include "simulator/parts/PowerLinks.h"

#include <cerrno>
#include <iterator>

#include "simulator/parts/GpioLines.h"
#include "simulator/parts/I2cDevices.h"
#include "simulator/parts/Part.h"
#include "simulator/shared/Clock.h"

namespace simulator::power {

namespace {

// A flicker lets one reading through, every 20 ms, and spoils the next one.
constexpr std::int64_t flickerStart = 10000;
constexpr std::int64_t flickerEnd = 30000;

struct Links {
  std::uint32_t module;
  const char* name;
};

constexpr Links links[] = {
    {1, "gpio_module1"}, {2, "gpio_module2"}, {4, "gpio_2k_4k_a"}, {5, "gpio_2k_4k_b"}};

std::string linkOf(std::uint32_t module, const char* line) {
  for (const Links& link : links) {
    if (link.module == module) {
      return std::string(link.name) + line;
    }
  }
  return "";
}

constexpr bool areModules(const Links (&table)[std::size(links)]) {
  for (const Links& link : table) {
    if (link.module >= moduleCount) {
      return false;
    }
  }
  return true;
}

static_assert(areModules(links), "power links of a module that there is not");

/// A module's line and one of its attributes.
struct LineAttribute {
  std::uint32_t module;
  bool isEnable;
  std::string name;
};

/// The line and attribute of a path such as "gpio_module1_power_en/value".
std::optional<LineAttribute> lineAttribute(const std::string& path) {
  const std::size_t slash = path.find('/');
  const std::string link = path.substr(0, slash);
  if (slash == std::string::npos || !gpio::isLineAttribute(path.substr(slash + 1))) {
    return std::nullopt;
  }
  for (const Links& row : links) {
    if (link == enableLink(row.module) || link == doneLink(row.module)) {
      return LineAttribute{row.module, link == enableLink(row.module), path.substr(slash + 1)};
    }
  }
  return std::nullopt;
}

int numberOf(const Hardware& hardware, const LineAttribute& attribute) {
  const PowerSequence& power = hardware.power[attribute.module];
  const bool missing = attribute.isEnable ? power.enableMissing : power.doneMissing;
  const int first = firstLine(hardware, attribute.module);
  return !power.present || missing || first < 0 ? -1 : first + (attribute.isEnable ? 0 : 1);
}

bool sequenceIsDone(const State& state, const PowerSequence& power) {
  const std::int64_t time = now(state) - power.switchedAt;
  if (power.failed) {
    return false;
  }
  if (!power.enabled) {
    return power.offDelay < 0 || time < power.offDelay;
  }
  if (power.onDelay < 0 || time < power.onDelay) {
    return false;
  }
  const std::int64_t sinceDone = time - power.onDelay;
  return !power.flickers || sinceDone < flickerStart || sinceDone >= flickerEnd;
}

/// The platform exports the lines of a module as it finds them, and drives power enable.
void connect(Hardware& hardware, std::uint32_t module) {
  PowerSequence& power = hardware.power[module];
  const int first = firstLine(hardware, module);
  GpioLine& enable = *gpio::lineOf(hardware, first);
  enable.exported = enable.output = true;
  enable.driven = power.enabled;
  gpio::lineOf(hardware, first + 1)->exported = true;
  power.connected = true;
}

}  // namespace

bool hasLinks(std::uint32_t module) { return !linkOf(module, "").empty(); }

std::string enableLink(std::uint32_t module) { return linkOf(module, "_power_en"); }

std::string doneLink(std::uint32_t module) { return linkOf(module, "_seq_done"); }

bool isUp(const State& state, std::uint32_t module) {
  const PowerSequence& power = state.hardware.power[module];
  return !power.present || (power.enabled && sequenceIsDone(state, power));
}

int firstLine(const Hardware& hardware, std::uint32_t module) {
  constexpr int ownChips = 496;  // below those that the kernel numbers at run time
  const PowerSequence& power = hardware.power[module];
  if (power.expander < 0) {
    return ownChips + static_cast<int>(module) * powerLineCount;
  }
  const int base = hardware.i2cDevices[power.expander].gpioBase;
  return base == 0 ? -1 : base;
}

std::optional<bool> drivenLevel(const State& state, int number) {
  for (std::uint32_t module = 0; module < moduleCount; ++module) {
    const PowerSequence& power = state.hardware.power[module];
    if (power.connected && number == firstLine(state.hardware, module) + 1) {
      return !sequenceIsDone(state, power);  // active low
    }
  }
  return std::nullopt;
}

bool hasClock(const Hardware& hardware, std::uint32_t module) {
  const ClockSource& clock = hardware.clocks[module];
  const PowerSequence& power = hardware.power[module];
  // Unless it is described, it is on where the module is when the instrument starts.
  return clock.described || hardware.running ? clock.on : !power.present || power.enabled;
}

void switchClock(State& state, std::uint32_t module, bool on) {
  if (module < moduleCount) {
    simulator::settle(state);
    state.hardware.clocks[module].on = on;
    simulator::settle(state);
  }
}

void settle(State& state) {
  Hardware& hardware = state.hardware;
  for (std::uint32_t module = 0; module < moduleCount; ++module) {
    PowerSequence& power = hardware.power[module];
    hardware.clocks[module].on = hasClock(hardware, module);
    if (!power.present) {
      continue;
    }
    if (power.expander == PowerSequence::unknown) {
      power.expander = i2c::powerExpander(hardware, module);
    }
    const int enable = firstLine(hardware, module);
    if (enable >= 0 && !power.connected) {
      connect(hardware, module);
    }
    power.connected = enable >= 0;
    const bool enabled = enable >= 0 && gpio::levelOf(state, enable);
    if (enabled != power.enabled) {
      power.enabled = enabled;
      power.switchedAt = now(state);
    }
  }
}

bool owns(const std::string& path) { return lineAttribute(path).has_value(); }

int open(const std::string& path, bool /*writing*/, std::string& content) {
  const LineAttribute attribute = *lineAttribute(path);
  const Locked state;
  return gpio::openLine(*state, numberOf(state->hardware, attribute), attribute.name, content);
}

int store(const std::string& path, const std::string& text, std::size_t /*offset*/) {
  const LineAttribute attribute = *lineAttribute(path);
  const Locked state;
  return gpio::storeLine(*state, numberOf(state->hardware, attribute), attribute.name, text);
}

}  // namespace simulator::power
