// SPDX-License-Identifier: MIT
#include <exception>

#include "bist/Command.h"
#include "bist/Machine.h"
#include "bist/Platform.h"
#include "bist/Ports.h"
#include "bist/Progress.h"
#include "bist/Slots.h"

namespace {

constexpr PCIeDownstreamPorts mainPorts[] = {DownstreamPort1, DownstreamPort5, DownstreamPort7,
                                             DownstreamPort9};

/// Why the link to a slot need not be up: the slot is empty or off. Empty when it has to be, or
/// when the modules' topology keeps that from being found out.
std::string reasonForNoLink(int slot) {
  try {
    BackplaneInterface backplane(slot);
    if (!backplane.isModulePresent(slot)) {
      return slotName(slot) + " is empty";
    }
    return hasExpander(slot) && !backplane.isModuleOn(slot) ? slotName(slot) + " is off" : "";
  } catch (const std::exception&) {
    return "";
  }
}

/// Link, errors and PRBS result of a port, of one without a link for a good reason the link alone.
void testPort(Section& section, PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  constexpr unsigned int seconds = 1;
  const int slot = slotOf(port);
  const std::string title = portTitle(port, slot);
  const Progress progress("testing " + title);
  DiagnosticsResults results = diagnostics.checkLiveDownstreamPort(port, 0, true);
  section.lines.push_back(linkLine(title, results));
  if (section.lines.back().verdict == Verdict::pass) {
    section.lines.push_back(errorSummary(title + " errors", diagnostics, results));
    section.lines.push_back(testPrbs(title + " PRBS", diagnostics, port, seconds, results));
  } else if (found(results.portIds)) {
    const std::string reason = reasonForNoLink(slot);
    if (!reason.empty()) {
      section.lines.back() = {title, "link down: " + reason};
    }
  }
  section.data.push_back(portJson(diagnostics, port, slot, results, section.lines.back().text));
}

void addPcie(Report& report) {
  Section section{"pcie", "PCIe", {}, Json::array()};
  PCIeDiagnostics diagnostics;
  report.takeMessages(section, {});
  for (const PCIeDownstreamPorts port : mainPorts) {
    testPort(section, diagnostics, port);
    report.takeMessages(section, {"port", static_cast<int>(port)});
  }
  report.add(section);
}

void cyclePower(BackplaneInterface& backplane, int slot, Section& section) {
  const Progress progress("power cycle of " + slotName(slot));
  const bool wasOn = backplane.isModuleOn(slot);
  section.lines.push_back(switchSlot(backplane, slot, false));
  section.lines.push_back(switchSlot(backplane, slot, true));
  if (!wasOn) {
    switchSlot(backplane, slot, false);
  }
}

/// Turns each module that has a power controller off and on, and leaves it as it was.
void addPowerCycle(Report& report) {
  Section section{"powerCycle", "Power cycle", {}, Json::array()};
  guarded(section, [&] {
    BackplaneInterface backplane;
    report.takeMessages(section, {});
    for (int slot = 0; slot < slotCount; ++slot) {
      if (hasExpander(slot)) {
        cyclePower(backplane, slot, section);
        report.takeMessages(section, {"slot", slot});
      }
    }
  });
  for (const Line& line : section.lines) {
    section.data.push_back({{"step", line.label}, {"result", line.text}});
  }
  report.add(section);
}

bool powerCycle = false;

void addOptions(CLI::App& app) {
  app.add_flag("--power-cycle", powerCycle,
               "also turn each module off and on; modules that were off stay off")
      ->disable_flag_override();
}

void addPlatform(Report& report) {
  const std::vector<std::string> libraries = platformLibraries();
  report.add({"platform", "Platform", {{"library", joined(libraries)}}, libraries});
}

/// Only an SPB has a backplane and a PCIe switch.
void run(Report& report) {
  boardCommand.run(report);
  addPlatform(report);
  if (!isSpb()) {
    return;
  }
  slotsCommand.run(report);
  addPcie(report);
  if (powerCycle) {
    addPowerCycle(report);
  }
}

}  // namespace

const Command reportCommand = {"report", "test everything and report it", Needs::instrument,
                               addOptions, run};
