#include <algorithm>
#include <exception>
#include <optional>

#include "bist/Sections.h"
#include "modules/BackplaneInterface.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"

namespace {

constexpr int slotCount = 6;
constexpr int slotsWithPort = 4;

// The library does not wait for the power sequence of these.
bool isPolled(int slot) { return slot != 4 && slot != 5; }

std::string label(int slot) { return "slot " + std::to_string(slot); }

/// What the library says about a slot.
struct SlotState {
  bool present = false;
  std::string expander;
  bool on = false;
  bool linkUp = false;
};

SlotState readSlot(BackplaneInterface& backplane, int slot) {
  return {backplane.isModulePresent(slot), Udev_PCA9536(static_cast<unsigned int>(slot)).GetPath(),
          backplane.isModuleOn(slot), backplane.isModuleLinkUp(slot)};
}

/// The device tree says where the slot's expander is, but none answers there.
bool lacksExpander(int slot, const SlotState& state) {
  return state.present && state.expander.empty() &&
         !ModuleI2CInfo(static_cast<unsigned int>(slot)).systemBus.empty();
}

std::string padded(const std::string& text, std::size_t width) {
  return text + std::string(width - std::min(width, text.size()), ' ');
}

std::string row(const std::string& present, const std::string& controller, const std::string& power,
                const std::string& link) {
  return padded(present, 10) + padded(controller, 14) + padded(power, 7) + link;
}

Line slotLine(int slot, const SlotState& state) {
  const bool missing = lacksExpander(slot, state);
  std::string controller = state.expander.empty() ? "-" : "expander";
  if (missing) {
    controller = "no expander";
  }
  const std::string power = state.expander.empty() ? "-" : state.on ? "on" : "off";
  const std::string link = slot >= slotsWithPort ? "-" : state.linkUp ? "up" : "down";
  return {label(slot), row(state.present ? "present" : "empty", controller, power, link),
          passIf(!missing)};
}

Json slotJson(int slot, const SlotState& state) {
  return {{"slot", slot},
          {"present", state.present},
          {"controller", state.expander.empty() ? Json(nullptr) : Json(state.expander)},
          {"on", state.on},
          {"linkUp", state.linkUp}};
}

/// Runs a test that the modules' topology can keep from being made at all.
template <typename Test>
void guarded(Section& section, Test test) {
  try {
    test();
  } catch (const std::exception& error) {
    section.lines.push_back(
        {"backplane", std::string("cannot be set up: ") + error.what(), Verdict::fail});
  }
}

/// Switches a slot and judges what it reads afterwards.
Line switchSlot(BackplaneInterface& backplane, int slot, bool on) {
  if (on) {
    backplane.turnModuleOn(slot);
  } else {
    backplane.turnModuleOff(slot);
  }
  const Udev_PCA9536 controller(static_cast<unsigned int>(slot));
  const std::string name = label(slot) + (on ? " on" : " off");
  if (backplane.isModuleOn(slot) != on) {
    return {name, on ? "reads off" : "reads on", Verdict::fail};
  }
  if (isPolled(slot) && controller.PowerSequenceDone() != on) {
    return {name, "power sequence not finished", Verdict::fail};
  }
  return {name, on ? "on" : "off", Verdict::pass};
}

bool hasExpander(int slot) {
  return !Udev_PCA9536(static_cast<unsigned int>(slot)).GetPath().empty();
}

void cyclePower(BackplaneInterface& backplane, int slot, Section& section) {
  const bool wasOn = backplane.isModuleOn(slot);
  section.lines.push_back(switchSlot(backplane, slot, false));
  section.lines.push_back(switchSlot(backplane, slot, true));
  if (!wasOn) {
    switchSlot(backplane, slot, false);
  }
}

void addSlots(Section& section, BackplaneInterface& backplane) {
  section.data = Json::array();
  section.lines.push_back({"", row("module", "controller", "power", "link"), Verdict::none});
  for (int slot = 0; slot < slotCount; ++slot) {
    const SlotState state = readSlot(backplane, slot);
    section.lines.push_back(slotLine(slot, state));
    section.data.push_back(slotJson(slot, state));
  }
}

}  // namespace

Section slotsSection() {
  Section section{"slots", "Slots"};
  guarded(section, [&] {
    BackplaneInterface backplane;
    addSlots(section, backplane);
  });
  return section;
}

Section powerCycleSection() {
  Section section{"powerCycle", "Power cycle", {}, Json::array()};
  guarded(section, [&] {
    BackplaneInterface backplane;
    for (int slot = 0; slot < slotCount; ++slot) {
      if (hasExpander(slot)) {
        cyclePower(backplane, slot, section);
      }
    }
  });
  for (const Line& line : section.lines) {
    section.data.push_back({{"step", line.label}, {"result", line.text}});
  }
  return section;
}

Section powerSection(int slot, bool on) {
  Section section{"power", "Power"};
  guarded(section, [&] {
    if (!hasExpander(slot)) {
      section.lines.push_back({label(slot), "has no power controller", Verdict::fail});
      return;
    }
    BackplaneInterface backplane(slot);
    section.lines.push_back(switchSlot(backplane, slot, on));
  });
  section.data = {
      {"slot", slot}, {"requested", on ? "on" : "off"}, {"result", section.lines.front().text}};
  return section;
}

Section topologySection(unsigned int module) {
  Section section{"topology", "Module " + std::to_string(module)};
  section.data = {{"module", module}};
  try {
    const ModuleI2CInfo info(module);
    const std::string expander = Udev_PCA9536(module).GetPath();
    const auto line = [](const char* name, const std::string& bus) {
      return Line{name, bus.empty() ? "-" : bus};
    };
    section.lines = {
        {"device tree", info.topBus.empty() ? "does not describe it" : "describes it",
         passIf(!info.topBus.empty())},
        line("top bus", info.topBus),
        line("system bus", info.systemBus),
        line("solution bus", info.solutionBus),
        {"2k4k", info.is2k4k ? "yes" : "no"},
        line("expander", expander),
    };
    section.data.update({{"topBus", info.topBus},
                         {"systemBus", info.systemBus},
                         {"solutionBus", info.solutionBus},
                         {"is2k4k", info.is2k4k},
                         {"expander", expander}});
  } catch (const std::exception& error) {
    section.lines = {
        {"device tree", std::string("cannot be resolved: ") + error.what(), Verdict::fail}};
    section.data["error"] = error.what();
  }
  return section;
}

std::optional<std::string> reasonForNoLink(PCIeDownstreamPorts port) {
  constexpr int slotsOfPorts[] = {0, 3, 2, 1};
  const int slot = slotsOfPorts[port];
  BackplaneInterface backplane(slot);
  if (!backplane.isModulePresent(slot)) {
    return label(slot) + " is empty";
  }
  if (hasExpander(slot) && !backplane.isModuleOn(slot)) {
    return label(slot) + " is off";
  }
  return std::nullopt;
}
