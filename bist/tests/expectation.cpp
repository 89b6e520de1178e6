// SPDX-License-Identifier: MIT
#include "bist/Slots.h"
#include "bist/Tests.h"

namespace {

void run(Report& report, const Choice& choice) {
  Section section{"expectation", "Expectation"};
  guarded(section, [&] {
    section.data = whatIsThere();
    section.lines = choice.expectation.compare(section.data);
  });
  report.add(section);
}

}  // namespace

extern const Test expectationTest = {"expectation",
                                     "what must be there, by --expect",
                                     {{"expected.board"},
                                      {"expected.slotN.module"},
                                      {"expected.slotN.controller"},
                                      {"expected.PORT.link"},
                                      {"backplane"}},
                                     Needs::instrument,
                                     true,
                                     run,
                                     nullptr};
