// SPDX-License-Identifier: MIT
#include "bist/Slots.h"

#include <cstdio>
#include <iterator>

#include "bist/Command.h"
#include "bist/Machine.h"
#include "bist/Ports.h"
#include "bist/Tests.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"
#include "sysfs/SysfsUtil.h"

namespace {

constexpr int slotsWithPort = 4;

std::string row(const char* module, const char* controller, const char* power, const char* link) {
  char text[40];
  std::snprintf(text, sizeof text, "%-10s%-14s%-7s%s", module, controller, power, link);
  return text;
}

static_assert(std::size(presenceLines) == slotCount, "each slot has a row");

bool canReadPresence(int slot) {
  bool success = true;
  if (presenceLines[slot] != nullptr) {
    SysfsUtil().readGpioValue(presenceLines[slot], &success);
  }
  return success;
}

void addSlot(Section& section, BackplaneInterface& backplane, int slot) {
  const auto module = static_cast<unsigned int>(slot);
  const bool present = backplane.isModulePresent(slot);
  Udev_PCA9536 powerControl(module);
  const std::string expander = powerControl.GetPath();
  const bool on = backplane.isModuleOn(slot);
  const bool linkUp = backplane.isModuleLinkUp(slot);
  // The device tree says where the slot's expander is, but none answers there.
  const bool missing = present && expander.empty() && !ModuleI2CInfo(module).systemBus.empty();
  // The library knows of no sequence of slots 4 and 5.
  const bool unfinished = on && slot < 4 && !powerControl.PowerSequenceDone();
  const bool readable = canReadPresence(slot);
  const std::string failure =
      !readable    ? std::string("presence line ") + presenceLines[slot] + " cannot be read"
      : missing    ? "present, but no expander answers"
      : unfinished ? "on, but its power sequence is not finished"
                   : "";
  const char* const controller = missing ? "no expander" : expander.empty() ? "-" : "expander";
  const char* const power = expander.empty() ? "-" : on ? "on" : "off";
  const char* const link = slot >= slotsWithPort ? "-" : linkUp ? "up" : "down";
  section.lines.push_back(
      {slotName(slot), row(present ? "present" : "empty", controller, power, link),
       passIf(!missing && !unfinished && readable), failure, slotTest(slot, "controller")});
  section.data.push_back({{"slot", slot},
                          {"present", present},
                          {"controller", expander.empty() ? Json(nullptr) : Json(expander)},
                          {"on", on},
                          {"linkUp", linkUp}});
}

void test(Report& report, const Choice& choice) {
  Section section{"slots", "Slots"};
  guarded(section, [&] {
    BackplaneInterface backplane;
    section.data = Json::array();
    section.lines.push_back({"", row("module", "controller", "power", "link")});
    for (int slot = 0; slot < slotCount; ++slot) {
      if (choice.hasSlot(slot)) {
        addSlot(section, backplane, slot);
      }
    }
    PCIeDiagnostics diagnostics;
    for (const PCIeDownstreamPorts port : mainPorts) {
      const std::string what = leftOn(diagnostics, port);
      for (Json& slot : section.data) {
        if (slot["slot"] == slotOf(port)) {
          slot["leftOn"] = what;
        }
      }
      if (!what.empty() && choice.hasSlot(slotOf(port))) {
        section.lines.push_back(
            {slotName(slotOf(port)), what + " left on; talvero-bist stop ends that"});
      }
    }
  });
  report.add(section);
}

void run(Report& report) { test(report, {}); }

}  // namespace

extern const Test slotsTest = {
    "slots",
    "power controllers of the slots; \"backplane\" comes where they cannot be reached",
    {{"slotN.controller"}, {"backplane"}},
    Needs::spb,
    false,
    test,
    nullptr};

const Command slotsCommand = {"slots", "show presence, power and link of the six slots", Needs::spb,
                              noOptions, run};
