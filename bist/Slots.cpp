// SPDX-License-Identifier: MIT
#include "bist/Slots.h"

#include <chrono>
#include <exception>

#include "modules/Udev_PCA9536.h"

std::string slotName(int slot) { return "slot " + std::to_string(slot); }

std::string slotTest(int slot, const std::string& what) {
  return "slot" + std::to_string(slot) + "." + what;
}

bool hasExpander(int slot) {
  return !Udev_PCA9536(static_cast<unsigned int>(slot)).GetPath().empty();
}

Line switchSlot(Report& report, BackplaneInterface& backplane, int slot, bool on) {
  constexpr unsigned int longestOn = 5;  // seconds that the library waits for a power sequence
  constexpr unsigned int longestOff = 2;
  const std::string title = slotName(slot) + (on ? " on" : " off");
  report.progress(title, on ? longestOn : longestOff);
  const auto start = std::chrono::steady_clock::now();
  if (on) {
    backplane.turnModuleOn(slot);
  } else {
    backplane.turnModuleOff(slot);
  }
  const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
  const Udev_PCA9536 controller(static_cast<unsigned int>(slot));
  const bool readsOn = backplane.isModuleOn(slot);
  // The library does not wait for the power sequence of slots 4 and 5.
  const bool hasSequence = slot != 4 && slot != 5;
  const bool done = !hasSequence || controller.PowerSequenceDone() == on;
  Line line{title, on ? "on" : "off", passIf(readsOn == on && done)};
  if (readsOn != on) {
    line.text = on ? "reads off" : "reads on";
  } else if (!done) {
    line.text = "power sequence not finished";
  }
  line.test = slotTest(slot, on ? "power-on" : "power-off");
  line.figures = {{"on", readsOn},
                  {"sequenceFollows", hasSequence ? Json(done) : Json(nullptr)},
                  {"seconds", taken.count()}};
  line.limit = {{"on", on}};
  return line;
}

void guarded(Section& section, const std::function<void()>& test) {
  try {
    test();
  } catch (const std::exception& error) {
    section.lines.push_back({"backplane", std::string("cannot be set up: ") + error.what(),
                             Verdict::fail, "", "backplane"});
  }
}
