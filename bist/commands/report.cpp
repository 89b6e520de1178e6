// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Ports.h"
#include "bist/Slots.h"
#include "board/BoardId.h"

namespace {

/// The main switch's ports, and the slots that they lead to.
constexpr struct {
  PCIeDownstreamPorts port;
  int slot;
} mainPorts[] = {
    {DownstreamPort1, 0}, {DownstreamPort5, 3}, {DownstreamPort7, 2}, {DownstreamPort9, 1}};

/// Why the link to a slot need not be up: the slot is empty or off. Empty when it has to be.
std::string reasonForNoLink(int slot) {
  BackplaneInterface backplane(slot);
  if (!backplane.isModulePresent(slot)) {
    return slotName(slot) + " is empty";
  }
  return hasExpander(slot) && !backplane.isModuleOn(slot) ? slotName(slot) + " is off" : "";
}

/// Links, errors and PRBS result of the main switch's ports, those without a link for a good reason
/// excepted.
Section pcieSection() {
  constexpr unsigned int seconds = 1;
  Section section{"pcie", "PCIe", {}, Json::array()};
  PCIeDiagnostics diagnostics;
  for (const auto& [port, slot] : mainPorts) {
    const std::string name = portName(port);
    DiagnosticsResults results = diagnostics.checkLiveDownstreamPort(port, 0, true);
    section.lines.push_back(linkLine(name, results));
    if (section.lines.back().verdict == Verdict::pass) {
      section.lines.push_back(errorSummary(name + " errors", diagnostics, results));
      results = diagnostics.testDownstreamPort(port, seconds);
      section.lines.push_back(prbsLine(name + " PRBS", results, seconds));
    } else if (found(results.portIds)) {
      const std::string reason = reasonForNoLink(slot);
      if (!reason.empty()) {
        section.lines.back() = {name, "link down: " + reason};
      }
    }
    section.data.push_back(portJson(diagnostics, port, results, section.lines.back().text));
  }
  return section;
}

void cyclePower(BackplaneInterface& backplane, int slot, Section& section) {
  const bool wasOn = backplane.isModuleOn(slot);
  section.lines.push_back(switchSlot(backplane, slot, false));
  section.lines.push_back(switchSlot(backplane, slot, true));
  if (!wasOn) {
    switchSlot(backplane, slot, false);
  }
}

/// Turns each module that has a power controller off and on, and leaves it as it was.
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

bool powerCycle = false;

void addOptions(CLI::App& app) {
  app.add_flag("--power-cycle", powerCycle,
               "also turn each module off and on; modules that were off stay off");
}

/// Only an SPB has a backplane and a PCIe switch.
void run(Report& report) {
  boardCommand.run(report);
  if (!BoardId().isSPB()) {
    return;
  }
  slotsCommand.run(report);
  report.add(pcieSection());
  if (powerCycle) {
    report.add(powerCycleSection());
  }
}

}  // namespace

const Command reportCommand = {"report", "test everything and report it", addOptions, run};
