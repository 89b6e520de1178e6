// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <iterator>
#include <memory>
#include <regex>

#include "simulator/parts/Changes.h"
#include "simulator/parts/Part.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

constexpr std::uint32_t always = Failure::always;

/// The setting of a key such as "pci port1 link" in a group of changes. It is tried, and so is
/// taking it back where that is to be done.
Setting settingOf(const Hardware& hardware, const std::string& key, const std::string& value,
                  bool takenBack) {
  Setting setting = parseSetting(key + "=" + value);
  std::string instance;
  const std::string kind = groupOf(setting.group, instance).kind;
  if (kind == "at" || kind == "after") {
    throw std::runtime_error("a change does not change others");
  }
  const auto scratch = std::make_unique<Hardware>(hardware);
  scratch->running = true;
  const std::optional<std::string> before = valueOf(*scratch, setting);
  apply(*scratch, setting);
  if (takenBack && before) {
    apply(*scratch, {setting.group, setting.key, *before});
  }
  if (takenBack && (!before || valueOf(*scratch, setting) != before)) {
    throw std::runtime_error("cannot be as before by itself; give it a value once more");
  }
  return setting;
}

std::smatch matchOf(const std::regex& pattern, const std::string& text, const char* expected) {
  std::smatch match;
  if (!std::regex_match(text, match, pattern)) {
    throw std::runtime_error(std::string("must be ") + expected);
  }
  return match;
}

/// "3.0" or "3.0 for 0.5".
void setAt(Hardware& hardware, const std::string& instance, const std::string& key,
           const std::string& value) {
  static const auto& pattern = *new std::regex("([^ ]+)( for ([^ ]+))?");
  const std::smatch match = matchOf(pattern, instance, "[at TIME] or [at TIME for TIME]");
  const Setting setting = settingOf(hardware, key, value, match[3].matched);
  const std::int64_t at = duration(match[1]);
  const std::int64_t length = match[3].matched ? duration(match[3]) : 0;
  if (match[3].matched && length == 0) {
    throw mustBe("for some time", match[3]);
  }
  Change& change = newChange(hardware);
  setSetting(change, setting);
  change.at = at;
  change.duration = length;
}

/// "2 ACCESS" or "2 for 3 ACCESS".
void setAfter(Hardware& hardware, const std::string& instance, const std::string& key,
              const std::string& value) {
  static const auto& pattern = *new std::regex("([0-9]+)( for ([0-9]+))? (.+)");
  const std::smatch match =
      matchOf(pattern, instance, "[after NUMBER ACCESS] or [after NUMBER for NUMBER ACCESS]");
  const Setting setting = settingOf(hardware, key, value, match[3].matched);
  const std::uint32_t after = number(match[1]);
  const std::uint32_t times = match[3].matched ? number(match[3]) : 0;
  if (match[3].matched && times == 0) {
    throw mustBe("for some accesses", match[3]);
  }
  Change& change = newChange(hardware);
  setSetting(change, setting);
  setText(change.access, sizeof change.access, match[4]);
  change.at = -1;
  change.after = after;
  change.times = times;
}

std::string keyOf(const Change& change) { return std::string(change.group) + " " + change.key; }

/// What is still to come, counted from now on.
Entries describeAt(const Hardware& hardware) {
  Entries entries;
  for (std::size_t index = 0; index < hardware.changesUsed; ++index) {
    const Change& change = hardware.changes[index];
    const std::int64_t start = std::max<std::int64_t>(change.at - hardware.time, 0);
    const std::int64_t end = change.at + change.duration - hardware.time;
    if (change.at >= 0 && change.phase == Change::Phase::waiting) {
      entries.push_back({secondsText(start) +
                             (change.duration == 0 ? "" : " for " + secondsText(change.duration)),
                         keyOf(change), change.value});
    } else if (change.at >= 0 && change.phase == Change::Phase::made) {
      entries.push_back(
          {secondsText(std::max<std::int64_t>(end, 0)), keyOf(change), change.before});
    }
  }
  return entries;
}

Entries describeAfter(const Hardware& hardware) {
  Entries entries;
  for (std::size_t index = 0; index < hardware.changesUsed; ++index) {
    const Change& change = hardware.changes[index];
    const std::string left = std::to_string(change.after + change.times - change.seen);
    if (change.at < 0 && change.phase == Change::Phase::waiting) {
      entries.push_back({std::to_string(change.after - change.seen) +
                             (change.times == 0 ? "" : " for " + std::to_string(change.times)) +
                             " " + change.access,
                         keyOf(change), change.value});
    } else if (change.at < 0 && change.phase == Change::Phase::made) {
      entries.push_back({left + " " + change.access, keyOf(change), change.before});
    }
  }
  return entries;
}

Failure& failureOf(Hardware& hardware, const std::string& access) {
  Failure* const end = hardware.failures + hardware.failuresUsed;
  return *std::find_if(hardware.failures, end,
                       [&](const Failure& failure) { return access == failure.access; });
}

void beginFailure(Hardware& hardware, const std::string& instance) {
  Failure& failure = failureOf(hardware, instance);
  if (&failure != hardware.failures + hardware.failuresUsed) {
    return;
  }
  if (hardware.failuresUsed == failureCount) {
    throw std::runtime_error("more than " + std::to_string(failureCount) + " kinds of failure");
  }
  failure = {};
  setText(failure.access, sizeof failure.access, instance);
  failure.error = EIO;
  failure.times = always;
  failure.rate = Failure::certain;
  ++hardware.failuresUsed;
}

/// The number of an error's name, such as EIO.
int errorNumber(const std::string& name) {
  for (int error = 1; error < 134; ++error) {
    const char* const known = strerrorname_np(error);
    if (known != nullptr && name == known) {
      return error;
    }
  }
  throw mustBe("the name of an error such as EIO", name);
}

std::uint32_t rateOf(const std::string& value) {
  static const auto& pattern = *new std::regex("0?[.][0-9]{1,6}|0|1([.]0{1,6})?");
  if (!std::regex_match(value, pattern)) {
    throw mustBe("a probability from 0 to 1 such as 0.01", value);
  }
  return static_cast<std::uint32_t>(std::llround(std::stod(value) * 1e6));
}

void setFailure(Hardware& hardware, const std::string& instance, const std::string& key,
                const std::string& value) {
  Failure& failure = failureOf(hardware, instance);
  if (key == "error") {
    failure.error = errorNumber(value);
  } else if (key == "after") {
    failure.after = number(value);
  } else if (key == "times") {
    failure.times = value == "always" ? always : number(value);
  } else if (key == "rate") {
    failure.rate = rateOf(value);
  } else {
    throw unknownKey();
  }
  if (key != "error") {
    failure.seen = 0;
  }
}

/// What is still to come.
Entries describeFailures(const Hardware& hardware) {
  Entries entries;
  for (std::size_t index = 0; index < hardware.failuresUsed; ++index) {
    const Failure& failure = hardware.failures[index];
    const std::uint32_t passed = std::min(failure.seen, failure.after);
    const std::uint32_t failed = std::min(failure.seen - passed, failure.times);
    const auto add = [&](const char* key, const std::string& value) {
      entries.push_back({failure.access, key, value});
    };
    add("", "");
    add("error", strerrorname_np(failure.error));
    add("after", std::to_string(failure.after - passed));
    add("times", failure.times == always ? "always" : std::to_string(failure.times - failed));
    add("rate", secondsText(failure.rate));  // millionths, as microseconds are
  }
  return entries;
}

constexpr Group groups[] = {{"fail", true, beginFailure, setFailure, describeFailures},
                            {"at", true, nullptr, setAt, describeAt},
                            {"after", true, nullptr, setAfter, describeAfter}};

}  // namespace

const Part changesPart = {groups, std::size(groups), nullptr, {}, nullptr};

}  // namespace simulator
