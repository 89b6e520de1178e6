// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "simulator/parts/Part.h"

/// How an instrument changes: each key of its description can be given a new value while it runs,
/// now, at a time, or when a program makes a certain access.
namespace simulator {

/// A new value for a key. Its text is that of the description in one line:
/// "pci port1 link=down".
struct Setting {
  std::string group;
  std::string key;
  std::string value;
};

/// Reads such a text; throws std::runtime_error for one that is none.
Setting parseSetting(const std::string& text);

/// The kind of group and the instance that a group's name stands for; throws std::runtime_error
/// when there is no such kind.
const Group& groupOf(const std::string& name, std::string& instance);

/// The value that a key has, as the description would say it; nothing where it would not.
std::optional<std::string> valueOf(const Hardware& hardware, const Setting& setting);

/// Gives a key its value in hardware that does not run. Throws std::runtime_error with the reason
/// if it cannot, and then has changed nothing that counts.
void apply(Hardware& hardware, const Setting& setting);

/// Gives keys of the running instrument new values, in order, with all that follows. Throws
/// std::runtime_error with the reason if it cannot, and then has changed nothing.
void change(State& state, const std::vector<Setting>& settings);

/// A change that is not made yet; throws std::runtime_error when there are too many.
Change& newChange(Hardware& hardware);

void setSetting(Change& change, const Setting& setting);

/// Gives a key a value for ever from a time on, in place of another time at which it was to have
/// it; never for a negative time.
void changeAt(Hardware& hardware, std::int64_t time, const Setting& setting);

/// When the next change is due that comes with time; the largest number for never.
std::int64_t nextChange(const Hardware& hardware);

/// Makes the changes that are due by now.
void makeChanges(State& state);

/// The same, for a program that goes on after a while.
void keepUp();

/// Lets a program's access to the instrument happen, by the text that it has in the trace: makes
/// the changes that come before it, and returns 0 or the errno value with which it fails. What
/// belongs to a traced call is no access of its own.
int admit(const std::string& access);

}  // namespace simulator
