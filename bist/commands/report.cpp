// SPDX-License-Identifier: MIT
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
  app.add_option("--write-expectation", writtenFile,
                 "write what is there to this file, if everything has passed")
      ->option_text("FILE");
}

/// Turns on what is off; the slots that were.
std::vector<int> turnAllOn(Report& report) {
  std::vector<int> slots;
  Section section{"powerOn", "Power on"};
  section.data = Json::array();
  guarded(section, [&] {
    for (const int slot : choice.powered) {
      BackplaneInterface backplane(slot);
      if (!backplane.isModuleOn(slot)) {
        report.willSwitch(undoOfPower(slot, false));
        slots.push_back(slot);
        section.lines.push_back(switchSlot(report, backplane, slot, true));
      }
    }
  });
  for (const Line& line : section.lines) {
    section.data.push_back({{"step", line.label}, {"result", line.text}});
  }
  report.add(section);
  return slots;
}

/// Turns them off again.
void turnOff(Report& report, std::vector<int> slots) {
  for (; !slots.empty(); slots.pop_back()) {
    BackplaneInterface backplane(slots.back());
    switchSlot(report, backplane, slots.back(), false);
    report.switchedBack();
  }
}

/// Writes what is there, as an expectation.
void write(Report& report) {
  Section section{"expectation", "Expectation"};
  section.data = whatIsThere();
  if (report.hasFailed()) {
    section.lines = {
        {writtenFile, "not written: not everything has passed", Verdict::fail, "", "expectation"}};
  } else {
    writeExpectation(writtenFile, section.data);
    section.lines = {{writtenFile, "written"}};
  }
  report.add(section);
}

void run(Report& report) {
  choice.prepare();
  const std::vector<int> switchedOn = powerOn ? turnAllOn(report) : std::vector<int>();
  runTests(report, choice);
  if (!writtenFile.empty()) {
    write(report);
  }
  turnOff(report, switchedOn);
}

}  // namespace

const Command reportCommand = {"report", "test everything and report it", Needs::instrument,
                               addOptions, run};
