// SPDX-License-Identifier: MIT
#include "simulator/parts/Description.h"

#include <fnmatch.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

#include "simulator/parts/Part.h"

namespace simulator {

namespace {

/// A key that has to be said, or a group that is there for itself, with an empty key.
struct Statement {
  std::string group;
  std::string key;
  std::string value;
};

using Statements = std::vector<Statement>;

/// Adds what has to be said of a group's instances so that `known` comes to them.
void addGroup(Statements& statements, const Group& group, const Entries& entries, Hardware& known) {
  for (const Entry& entry : entries) {
    if (group.begin != nullptr) {
      group.begin(known, entry.instance);
    }
  }
  std::map<std::pair<std::string, std::string>, std::string> before;
  for (const Entry& entry : group.describe(known)) {
    if (!entry.key.empty()) {
      before[{entry.instance, entry.key}] = entry.value;
    }
  }
  for (const Entry& entry : entries) {
    const auto same = before.find({entry.instance, entry.key});
    if (same != before.end() && same->second == entry.value) {
      continue;
    }
    statements.push_back({group.kind + std::string(group.hasInstance ? " " : "") + entry.instance,
                          entry.key, entry.value});
    if (!entry.key.empty()) {
      group.set(known, entry.instance, entry.key, entry.value);
    }
  }
}

Statements statementsOf(const Hardware& hardware) {
  Statements statements;
  const auto known = std::make_unique<Hardware>();
  for (const Part* part : parts) {
    for (std::size_t index = 0; index < part->groupCount; ++index) {
      const Group& group = part->groups[index];
      addGroup(statements, group, group.describe(hardware), *known);
    }
  }
  return statements;
}

// Groups and keys that no reading tells, as the shell has patterns.
constexpr struct {
  const char* group;
  const char* key;
} behaviour[] = {
    {"power *", "on-delay"},   {"power *", "off-delay"}, {"power *", "flicker"},
    {"power *", "supply"},     {"power *", "since"},     {"clock", "*"},
    {"pci *", "*correctable"}, {"pci *", "loopback"},    {"pci *", "prbs*"},
    {"pci *", "stuck-*"},      {"pci *", "trained"},     {"pci *", "link"},
    {"faults", "*"},           {"fail *", "*"},          {"at *", "*"},
    {"after *", "*"},
};

bool isBehaviour(const Statement& statement) {
  return std::any_of(std::begin(behaviour), std::end(behaviour), [&](const auto& row) {
    return fnmatch(row.group, statement.group.c_str(), 0) == 0 &&
           fnmatch(row.key, statement.key.c_str(), 0) == 0;
  });
}

}  // namespace

std::string describe(const Hardware& hardware) {
  std::string text;
  std::string last;
  for (const Statement& statement : statementsOf(hardware)) {
    if (statement.group != last) {
      text += (last.empty() ? "[" : "\n[") + statement.group + "]\n";
      last = statement.group;
    }
    if (!statement.key.empty()) {
      text += statement.key + "=" + statement.value + "\n";
    }
  }
  return text;
}

std::string descriptionFile(const std::vector<std::string>& comments, const Hardware& hardware) {
  std::string text;
  for (const std::string& comment : comments) {
    text += (comment.empty() ? "#" : "# ") + comment + "\n";
  }
  return text + "\n[" + versionGroup + "]\n" + versionKey + "=" TALVERO_VERSION "\n\n" +
         describe(hardware);
}

std::string describeBehaviour(const Hardware& hardware) {
  std::string text;
  for (const Statement& statement : statementsOf(hardware)) {
    if (isBehaviour(statement)) {
      text += statement.group + "\t" + statement.key + "\t" + statement.value + "\n";
    }
  }
  return text;
}

}  // namespace simulator
