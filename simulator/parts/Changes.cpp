// SPDX-License-Identifier: MIT
#include "simulator/parts/Changes.h"

#include <fnmatch.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <limits>
#include <memory>

#include "simulator/parts/Values.h"
#include "simulator/shared/Clock.h"
#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

using Phase = Change::Phase;

constexpr std::int64_t never = std::numeric_limits<std::int64_t>::max();

/// Accesses that a named fault makes fail. Interrupted sleeps are among the sleeps.
struct FaultEffect {
  Fault fault;
  const char* access;
  int error;
};

constexpr FaultEffect faultEffects[] = {
    {udevContext, "udev_new", ENOMEM},
    {udevEnumeration, "udev_enumerate_new", ENOMEM},
    {gpioExport, "open /sys/class/gpio/export", EACCES},
    {fpgaAccess, "fpga open", EACCES},
    {busLookup, "bus behind", EACCES},
};

/// Whether a pattern matches an access, or one that goes on after a blank.
bool matches(const std::string& pattern, const std::string& access) {
  return fnmatch(pattern.c_str(), access.c_str(), 0) == 0 ||
         fnmatch((pattern + " *").c_str(), access.c_str(), 0) == 0;
}

bool isWatched(const Hardware& hardware) {
  return hardware.changesUsed != 0 || hardware.failuresUsed != 0 ||
         std::any_of(std::begin(hardware.faults), std::end(hardware.faults),
                     [](bool fault) { return fault; });
}

/// A number from 0 to 999999 by chance, the same in each run with the same seed.
std::uint32_t draw(std::uint64_t& state) {
  state += 0x9E3779B97F4A7C15;
  std::uint64_t mixed = state;
  mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
  mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
  return static_cast<std::uint32_t>((mixed ^ (mixed >> 31)) % Failure::certain);
}

/// Whether an access that a failure matches is one of those that fail.
bool strikes(Failure& failure, std::uint64_t& random) {
  const std::uint32_t number = failure.seen++;
  const bool inDanger = number >= failure.after && number - failure.after < failure.times;
  return inDanger && (failure.rate == Failure::certain || draw(random) < failure.rate);
}

int errorOf(Hardware& hardware, const std::string& access) {
  int error = 0;
  for (std::size_t index = 0; index < hardware.failuresUsed; ++index) {
    Failure& failure = hardware.failures[index];
    if (matches(failure.access, access) && strikes(failure, hardware.random) && error == 0) {
      error = failure.error;
    }
  }
  for (const FaultEffect& effect : faultEffects) {
    if (error == 0 && hardware.faults[effect.fault] && matches(effect.access, access)) {
      error = effect.error;
    }
  }
  return error;
}

void make(State& state, Change& due) {
  const bool forEver = due.at >= 0 ? due.duration == 0 : due.times == 0;
  const Setting setting = {due.group, due.key, due.phase == Phase::made ? due.before : due.value};
  if (due.phase == Phase::waiting && !forEver) {
    setText(due.before, sizeof due.before,
            valueOf(state.hardware, {due.group, due.key, due.value}).value_or(""));
  }
  due.phase = due.phase == Phase::waiting && !forEver ? Phase::made : Phase::over;
  try {
    change(state, {setting});
  } catch (const std::exception& reason) {
    const std::string line = std::string("talvero-sim: not changed: ") + reason.what() + "\n";
    (void)!::write(STDERR_FILENO, line.data(), line.size());
  }
}

/// When a change is due by time; the largest number for never.
std::int64_t timeOf(const Change& change) {
  if (change.at < 0 || change.phase == Phase::over) {
    return never;
  }
  return change.at + (change.phase == Phase::made ? change.duration : 0);
}

/// The one that is due first; null when there are none.
Change* nextOf(Hardware& hardware) {
  Change* const end = hardware.changes + hardware.changesUsed;
  Change* const first = std::min_element(
      hardware.changes, end,
      [](const Change& one, const Change& other) { return timeOf(one) < timeOf(other); });
  return first == end ? nullptr : first;
}

/// Makes the changes that come before an access, which is another one of their kind.
void countAccess(State& state, const std::string& access) {
  for (std::size_t index = 0; index < state.hardware.changesUsed; ++index) {
    Change& change = state.hardware.changes[index];
    if (change.at < 0 && change.phase != Phase::over && matches(change.access, access)) {
      const std::uint32_t number = change.seen++;
      if (number == change.after + (change.phase == Phase::made ? change.times : 0)) {
        make(state, change);
      }
    }
  }
}

}  // namespace

Setting parseSetting(const std::string& text) {
  if (text.size() > longestLine) {
    throw tooLong(longestLine);
  }
  const std::size_t end = text.find('=');
  const std::size_t blank = end == std::string::npos ? end : text.rfind(' ', end);
  if (blank == std::string::npos || blank == 0 || blank + 1 == end) {
    throw std::runtime_error("not a setting such as \"pci port1 link=down\": \"" + text + "\"");
  }
  return {text.substr(0, blank), text.substr(blank + 1, end - blank - 1), text.substr(end + 1)};
}

const Group& groupOf(const std::string& name, std::string& instance) {
  const std::size_t blank = name.find(' ');
  const bool hasInstance = blank != std::string::npos;
  const std::string kind = name.substr(0, blank);
  instance = hasInstance ? name.substr(blank + 1) : "";
  for (const Part* part : parts) {
    for (std::size_t index = 0; index < part->groupCount; ++index) {
      const Group& group = part->groups[index];
      if (kind == group.kind && hasInstance == group.hasInstance) {
        return group;
      }
    }
  }
  throw std::runtime_error("unknown group");
}

std::optional<std::string> valueOf(const Hardware& hardware, const Setting& setting) {
  std::string instance;
  for (const Entry& entry : groupOf(setting.group, instance).describe(hardware)) {
    if (entry.instance == instance && entry.key == setting.key) {
      return entry.value;
    }
  }
  return std::nullopt;
}

void apply(Hardware& hardware, const Setting& setting) {
  std::string instance;
  const Group& group = groupOf(setting.group, instance);
  if (group.begin != nullptr) {
    group.begin(hardware, instance);
  }
  group.set(hardware, instance, setting.key, setting.value);
}

void change(State& state, const std::vector<Setting>& settings) {
  settle(state);  // what time has brought about by now
  state.hardware.time = now(state);
  const Tree before = treeOf(state.hardware);
  const auto unchanged = std::make_unique<Hardware>(state.hardware);
  const auto changed = std::make_unique<Hardware>(*unchanged);
  for (const Setting& setting : settings) {
    try {
      apply(*changed, setting);
    } catch (const std::runtime_error& reason) {
      throw std::runtime_error("[" + setting.group + "] " + setting.key + ": " + reason.what());
    }
  }
  state.hardware = *changed;
  settle(state);
  try {
    changeFiles(state.root, before, treeOf(state.hardware));
  } catch (const std::exception&) {
    state.hardware = *unchanged;
    throw;
  }
}

Change& newChange(Hardware& hardware) {
  Change* const end = hardware.changes + hardware.changesUsed;
  Change* place = std::find_if(hardware.changes, end,
                               [](const Change& change) { return change.phase == Phase::over; });
  if (place == end && hardware.changesUsed++ == changeCount) {
    hardware.changesUsed = changeCount;
    throw std::runtime_error("more than " + std::to_string(changeCount) + " changes to come");
  }
  *place = Change{};
  return *place;
}

void setSetting(Change& change, const Setting& setting) {
  setText(change.group, sizeof change.group, setting.group);
  setText(change.key, sizeof change.key, setting.key);
  setText(change.value, sizeof change.value, setting.value);
}

void changeAt(Hardware& hardware, std::int64_t time, const Setting& setting) {
  for (std::size_t index = 0; index < hardware.changesUsed; ++index) {
    Change& change = hardware.changes[index];
    const bool lasts = change.at >= 0 && change.duration == 0;
    if (lasts && setting.group == change.group && setting.key == change.key &&
        setting.value == change.value) {
      change.phase = Phase::over;
    }
  }
  if (time >= 0) {
    Change& change = newChange(hardware);
    setSetting(change, setting);
    change.at = time;
  }
}

std::int64_t nextChange(const Hardware& hardware) {
  const Change* const next = nextOf(const_cast<Hardware&>(hardware));
  return next == nullptr ? never : timeOf(*next);
}

void makeChanges(State& state) {
  const std::int64_t time = now(state);
  while (nextChange(state.hardware) <= time) {
    state.moment = nextChange(state.hardware);
    make(state, *nextOf(state.hardware));
  }
  state.moment = -1;
}

void keepUp() {
  if (attached() && state()->hardware.changesUsed != 0) {
    makeChanges(*Locked());
  }
}

int admit(const std::string& access) {
  if (!attached() || nested() || !isWatched(state()->hardware)) {
    return 0;
  }
  const Locked state;
  makeChanges(*state);
  countAccess(*state, access);
  return errorOf(state->hardware, access);
}

}  // namespace simulator
