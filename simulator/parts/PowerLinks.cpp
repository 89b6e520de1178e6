// SPDX-License-Identifier: MIT
#include "simulator/parts/PowerLinks.h"

#include <cerrno>
#include <optional>

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

struct Line {
  std::uint32_t module;
  bool isEnable;
};

std::optional<Line> lineOf(const std::string& path) {
  for (const Links& link : links) {
    if (path == enableLink(link.module) + "/value") {
      return Line{link.module, true};
    }
    if (path == doneLink(link.module) + "/value") {
      return Line{link.module, false};
    }
  }
  return std::nullopt;
}

bool sequenceIsDone(const State& state, const PowerSequence& power) {
  const std::int64_t time = now(state) - power.switchedAt;
  if (!power.enabled) {
    return power.offDelay < 0 || time < power.offDelay;
  }
  if (power.onDelay < 0 || time < power.onDelay) {
    return false;
  }
  const std::int64_t sinceDone = time - power.onDelay;
  return !power.flickers || sinceDone < flickerStart || sinceDone >= flickerEnd;
}

}  // namespace

bool hasLinks(std::uint32_t module) { return !linkOf(module, "").empty(); }

std::string enableLink(std::uint32_t module) { return linkOf(module, "_power_en"); }

std::string doneLink(std::uint32_t module) { return linkOf(module, "_seq_done"); }

bool isUp(const State& state, std::uint32_t module) {
  const PowerSequence& power = state.hardware.power[module];
  return !power.present || (power.enabled && sequenceIsDone(state, power));
}

bool owns(const std::string& path) { return lineOf(path).has_value(); }

int open(const std::string& path, bool /*writing*/, std::string& content) {
  const Line line = *lineOf(path);
  const Locked state;
  const PowerSequence& power = state->hardware.power[line.module];
  if (!power.present || (line.isEnable ? power.enableMissing : power.doneMissing)) {
    return ENOENT;
  }
  // Sequence done is active low.
  const bool high = line.isEnable ? power.enabled : !sequenceIsDone(*state, power);
  content = high ? "1\n" : "0\n";
  return 0;
}

int store(const std::string& path, const std::string& text) {
  const Line line = *lineOf(path);
  if (!line.isEnable) {
    return EPERM;
  }
  if (text.empty() || (text[0] != '0' && text[0] != '1')) {
    return EINVAL;
  }
  const Locked state;
  PowerSequence& power = state->hardware.power[line.module];
  const bool enabled = text[0] == '1';
  if (enabled != power.enabled) {
    power.enabled = enabled;
    power.switchedAt = now(*state);
  }
  return 0;
}

}  // namespace simulator::power
