// SPDX-License-Identifier: MIT
#include "bist/Tests.h"

namespace {

/// Tests that are commands of their own.
constexpr struct {
  const char* name;
  const char* help;
  const char* results;
} otherTests[] = {
    {"margin", "transmitter settings without errors", "PORT.margin"},
    {"topology", "description of a module in the device tree", "moduleN.topology"},
    {"shim", "shim switch of a module", "moduleN.shim"},
    {"tx", "transmitter settings", "PORT.tx-drive-level and the other settings"},
    {"stop", "PRBS and loopback switched off", "PORT.stop"},
    {"register", "a register read or written", "PORT.register"},
    {"capture", "everything read for a description", "capture"},
};

void add(Section& section, const std::string& name, const std::string& help,
         const std::string& results) {
  section.lines.push_back({name, help + ": " + results});
  section.data.push_back({{"kind", name}, {"help", help}, {"tests", results}});
}

// PORT is a port of the main switch or, after "moduleN.", of the shim switch of a module.
void run(Report& report) {
  Section section{"list", "Tests"};
  section.data = Json::array();
  for (const Test* const test : allTests) {
    std::vector<std::string> names;
    for (const Result& result : test->results) {
      names.emplace_back(result.name);
    }
    add(section, test->name, test->help, joined(names));
  }
  for (const auto& [name, help, results] : otherTests) {
    add(section, name, help, results);
  }
  report.add(section);
}

}  // namespace

const Command listCommand = {"list", "name all tests", Needs::nothing, noOptions, run};
