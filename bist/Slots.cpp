// SPDX-License-Identifier: MIT
#include "bist/Slots.h"

#include <exception>

#include "modules/Udev_PCA9536.h"

std::string slotName(int slot) { return "slot " + std::to_string(slot); }

bool hasExpander(int slot) {
  return !Udev_PCA9536(static_cast<unsigned int>(slot)).GetPath().empty();
}

Line switchSlot(BackplaneInterface& backplane, int slot, bool on) {
  if (on) {
    backplane.turnModuleOn(slot);
  } else {
    backplane.turnModuleOff(slot);
  }
  const Udev_PCA9536 controller(static_cast<unsigned int>(slot));
  const std::string name = slotName(slot) + (on ? " on" : " off");
  if (backplane.isModuleOn(slot) != on) {
    return {name, on ? "reads off" : "reads on", Verdict::fail};
  }
  // The library does not wait for the power sequence of slots 4 and 5.
  if (slot != 4 && slot != 5 && controller.PowerSequenceDone() != on) {
    return {name, "power sequence not finished", Verdict::fail};
  }
  return {name, on ? "on" : "off", Verdict::pass};
}

void guarded(Section& section, const std::function<void()>& test) {
  try {
    test();
  } catch (const std::exception& error) {
    section.lines.push_back(
        {"backplane", std::string("cannot be set up: ") + error.what(), Verdict::fail});
  }
}
