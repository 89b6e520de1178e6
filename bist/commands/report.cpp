// SPDX-License-Identifier: MIT
#include <optional>

#include "bist/Draft.h"
#include "bist/Machine.h"
#include "bist/Options.h"
#include "bist/Slots.h"
#include "bist/Tests.h"
#include "bist/Undo.h"

namespace {

bool powerOn = false;
std::string writtenFile;
Choice choice;

void addOptions(CLI::App& app) {
  addChoice(app, choice);
  app.add_flag("--power-on", powerOn,
               "turn all modules on first, and those that were off, off again in the end")
      ->disable_flag_override();
  CLI::Option* const written =
      app.add_option("--write-expectation", writtenFile,
                     "write what is there to this file, if everything has passed")
          ->option_text("FILE");
  for (const char* const part : {"--tests", "--slots", "--ports"}) {
    written->excludes(app.get_option(part));  // what is not tested may be wrong
  }
}

/// A step of turning modules on, or off again.
Line step(Report& report, int slot, bool on, const char* test) {
  BackplaneInterface backplane(slot);
  Line line = switchSlot(report, backplane, slot, on);
  line.test = slotTest(slot, test);
  return line;
}

/// Turns on what is off; the slots that were.
std::vector<int> turnOn(Report& report, const std::vector<int>& powered) {
  std::vector<int> slots;
  Section troubles;
  Json steps = Json::array();
  report.begin({"powerOn", "Power on"}, 9, 2);
  const auto add = [&](const Line& line, const Subject& about) {
    report.line(line, about);
    steps.push_back({{"step", line.label}, {"result", line.text}});
  };
  guarded(troubles, [&] {
    for (const int slot : powered) {
      if (!BackplaneInterface(slot).isModuleOn(slot)) {
        report.willSwitch(undoOfPower(slot, false));
        slots.push_back(slot);
        add(step(report, slot, true, "on-first"), {"slot", slot});
      }
    }
  });
  for (const Line& line : troubles.lines) {
    add(line, {});
  }
  report.end(steps);
  return slots;
}

/// Turns them off again, and says what stays on.
void turnOff(Report& report, std::vector<int> slots) {
  Section section{"powerOff", "Power off again"};
  for (; !slots.empty(); slots.pop_back()) {
    const Line line = step(report, slots.back(), false, "off-again");
    if (line.verdict != Verdict::pass) {
      section.lines.push_back(line);
      section.data.push_back({{"step", line.label}, {"result", line.text}});
    }
    report.switchedBack();
  }
  if (!section.lines.empty()) {
    report.add(section);
  }
}

/// Writes what has been found as an expectation, which keeps the limits of the one before.
void write(Report& report, Draft& draft, Section& section) {
  if (report.hasFailed() || !section.lines.empty()) {
    section.lines.push_back(
        {writtenFile, "not written: not everything has passed", Verdict::fail, "", "expectation"});
  } else {
    Json written = section.data;
    if (!choice.expectation.limits().empty()) {
      written["limits"] = choice.expectation.limits();
    }
    draft.write(written.dump(2) + "\n");
    section.lines.push_back({writtenFile, "written"});
  }
  report.add(section);
}

void run(Report& report) {
  choice.prepare();
  std::optional<Draft> draft;
  if (!writtenFile.empty()) {
    draft.emplace(report, writtenFile);
  }
  const std::vector<int> powered = powerOn && isSpb() ? slotsWithPower(choice) : std::vector<int>();
  const std::vector<int> switchedOn =
      powered.empty() ? std::vector<int>() : turnOn(report, powered);
  runTests(report, choice);
  Section found{choice.expectation.comparesSomething() ? "written" : "expectation", "Expectation"};
  if (draft) {
    guarded(found, [&] { found.data = whatIsThere(); });
  }
  turnOff(report, switchedOn);
  if (draft) {
    write(report, *draft, found);
  }
}

}  // namespace

const Command reportCommand = {"report", "test everything and report it", Needs::instrument,
                               addOptions, run};
