// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Tests.h"

namespace {

void run(Report& report) {
  Section section{"list", "Tests"};
  section.data = Json::array();
  for (const TestKind& kind : testKinds) {
    section.lines.push_back({kind.name, std::string(kind.help) + ": " + kind.tests});
    section.data.push_back({{"kind", kind.name}, {"help", kind.help}, {"tests", kind.tests}});
  }
  report.add(section);
}

}  // namespace

const Command listCommand = {"list", "name all tests", Needs::nothing, noOptions, false, run};
