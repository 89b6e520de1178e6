// SPDX-License-Identifier: MIT
#include <algorithm>

#include "bist/Command.h"
#include "bist/Machine.h"
#include "bist/Options.h"
#include "bist/Platform.h"
#include "bist/Slots.h"
#include "bist/Tests.h"
#include "bist/Undo.h"

namespace {

bool powerCycle = false;
bool powerOn = false;
unsigned int seconds = 1;
std::string expectationFile;
std::string writtenFile;
Choice choice;

/// Takes a kind of test.
CLI::Validator testKind() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        std::vector<std::string> names;
        for (const TestKind& kind : testKinds) {
          if (kind.chosen) {
            names.emplace_back(kind.name);
          }
        }
        return std::find(names.begin(), names.end(), text) != names.end()
                   ? ""
                   : "\"" + text + "\" is no kind of test; there are " + joined(names);
      },
      "");
}

void addOptions(CLI::App& app) {
  app.add_flag("--power-cycle", powerCycle,
               "also turn each module off and on; modules that were off stay off")
      ->disable_flag_override();
  app.add_flag("--power-on", powerOn,
               "turn all modules on first, and those that were off, off again in the end")
      ->disable_flag_override();
  app.add_option("--tests", choice.tests, "kinds of tests, separated by commas; see list")
      ->delimiter(',')
      ->check(testKind())
      ->option_text("KIND,...");
  app.add_option("--slots", choice.slots, "these slots and their ports only, 0 to 5")
      ->delimiter(',')
      ->check(wholeNumber(5))
      ->option_text("SLOT,...");
  app.add_option("--ports", choice.ports, "these ports only")
      ->delimiter(',')
      ->transform(mainPortNumber())
      ->option_text("PORT,...");
  addSeconds(app, seconds, "how long PRBS is tested on each port, 0 to 86400; 1 unless given");
  app.add_option("--expect", expectationFile,
                 "compare with what must be there, and judge by the limits in this file")
      ->option_text("FILE");
  app.add_option("--write-expectation", writtenFile,
                 "write what is there to this file, if everything has passed")
      ->option_text("FILE");
}

void addPlatform(Report& report) {
  const std::vector<std::string> libraries = platformLibraries();
  report.add({"platform", "Platform", {{"library", joined(libraries)}}, libraries});
}

/// Turns on what is off; the slots that were.
std::vector<int> turnAllOn(Report& report) {
  std::vector<int> slots;
  Section section{"powerOn", "Power on"};
  section.data = Json::array();
  guarded(section, [&] {
    for (const int slot : slotsWithPower(choice)) {
      BackplaneInterface backplane(slot);
      if (!backplane.isModuleOn(slot)) {
        report.progress(slotName(slot) + " on");
        report.willSwitch(undoOfPower(slot, false));
        slots.push_back(slot);
        section.lines.push_back(switchSlot(backplane, slot, true));
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
    report.progress(slotName(slots.back()) + " off");
    switchSlot(backplane, slots.back(), false);
    report.switchedBack();
  }
}

/// Compares what is there with what must be, and writes it.
void addExpectation(Report& report) {
  if (expectationFile.empty() && writtenFile.empty()) {
    return;
  }
  Section section{"expectation", "Expectation"};
  const Json found = whatIsThere();
  section.data = found;
  section.lines = choice.expectation.compare(found);
  if (!writtenFile.empty() && report.hasFailed()) {
    section.lines.push_back(
        {writtenFile, "not written: not everything has passed", Verdict::fail, "", "expectation"});
  } else if (!writtenFile.empty()) {
    writeExpectation(writtenFile, found);
    section.lines.push_back({writtenFile, "written"});
  }
  report.add(section);
}

/// Only an SPB has a backplane and a PCIe switch.
void testSpb(Report& report) {
  const std::vector<int> switchedOn = powerOn ? turnAllOn(report) : std::vector<int>();
  if (choice.hasTest("slots")) {
    slotsCommand.run(report);
  }
  if (choice.hasTest("link") || choice.hasTest("errors") || choice.hasTest("prbs")) {
    report.begin({"pcie", "PCIe"}, 31, 17);
    PCIeDiagnostics diagnostics;
    report.takeMessages({});
    testPorts(report, diagnostics, seconds, choice);
  }
  if (powerCycle) {
    cyclePower(report, slotsWithPower(choice));
  }
  addExpectation(report);
  turnOff(report, switchedOn);
}

void run(Report& report) {
  if (!expectationFile.empty()) {
    choice.expectation = Expectation(expectationFile);
  }
  if (choice.hasTest("board")) {
    boardCommand.run(report);
    addPlatform(report);
  }
  if (isSpb()) {
    testSpb(report);
  } else {
    addExpectation(report);
  }
}

}  // namespace

const Command reportCommand = {
    "report", "test everything and report it", Needs::instrument, addOptions, true, run};
