// SPDX-License-Identifier: MIT
#include "bist/Slots.h"
#include "bist/Tests.h"
#include "bist/Undo.h"

namespace {

/// Adds a step of a power cycle to the section and to its JSON.
void addStep(Report& report, Json& steps, const Line& line, const Subject& about) {
  report.line(line, about);
  steps.push_back({{"step", line.label}, {"result", line.text}});
}

void cycleSlot(Report& report, BackplaneInterface& backplane, int slot, Json& steps) {
  const bool wasOn = backplane.isModuleOn(slot);
  report.willSwitch(undoOfPower(slot, wasOn));
  addStep(report, steps, switchSlot(report, backplane, slot, false), {"slot", slot});
  addStep(report, steps, switchSlot(report, backplane, slot, true), {"slot", slot});
  if (!wasOn) {
    Line back = switchSlot(report, backplane, slot, false);
    back.test = slotTest(slot, "off-again");
    if (back.verdict != Verdict::pass) {
      addStep(report, steps, back, {"slot", slot});
    }
  }
  report.switchedBack();
}

/// Turns the modules off and on, and leaves each as it was.
void run(Report& report, const Choice& choice) {
  report.begin({"powerCycle", "Power cycle"}, 10, 3);
  if (choice.powered.empty()) {
    report.line({"power", "no slot has a power controller", Verdict::notTested, "", "power"}, {});
  }
  Json steps = Json::array();
  Section troubles;
  guarded(troubles, [&] {
    BackplaneInterface backplane;
    report.takeMessages({});
    for (const int slot : choice.powered) {
      cycleSlot(report, backplane, slot, steps);
    }
  });
  for (const Line& line : troubles.lines) {
    addStep(report, steps, line, {});
  }
  report.end(steps);
}

}  // namespace

extern const Test powerTest = {
    "power",
    "modules turned off and on; \"backplane\" comes where they cannot be reached",
    {{"slotN.power-off", {{"seconds", "seconds"}}, "seconds"},
     {"slotN.power-on", {{"seconds", "seconds"}}, "seconds"},
     {"slotN.off-again"},
     {"backplane"},
     {"power"}},
    Needs::spb,
    true,
    run,
    nullptr};
