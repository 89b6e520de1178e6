// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Slots.h"
#include "bist/Undo.h"

namespace {

int slot = 0;
bool on = false;

void addOptions(CLI::App& app) {
  app.add_option("SLOT", slot, "0 to 5")->required()->check(wholeNumber(5))->option_text(" ");
  app.add_option("STATE", on, "on or off")->required()->transform(onOff())->option_text(" ");
}

void run(Report& report) {
  Section section{"power", "Power"};
  section.about = {"slot", slot};
  guarded(section, [&] {
    if (!hasExpander(slot)) {
      section.lines.push_back({slotName(slot), "has no power controller", Verdict::fail, "",
                               slotTest(slot, on ? "power-on" : "power-off")});
      return;
    }
    BackplaneInterface backplane(slot);
    report.willSwitch(undoOfPower(slot, backplane.isModuleOn(slot)));
    section.lines.push_back(switchSlot(report, backplane, slot, on));
  });
  section.data = {
      {"slot", slot}, {"requested", on ? "on" : "off"}, {"result", section.lines.front().text}};
  report.add(section);
}

}  // namespace

const Command powerCommand = {"power", "turn the module in a slot on or off", Needs::spb,
                              addOptions, run};
