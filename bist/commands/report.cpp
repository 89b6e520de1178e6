// SPDX-License-Identifier: MIT
#include <exception>

#include "bist/Command.h"
#include "bist/Machine.h"
#include "bist/Platform.h"
#include "bist/Ports.h"
#include "bist/Slots.h"
#include "bist/Undo.h"

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

/// Why the link of a port is down, where that is no fault; empty otherwise.
std::string excuse(const Line& link, const DiagnosticsResults& results, int slot) {
  return link.verdict == Verdict::fail && found(results.portIds) ? reasonForNoLink(slot) : "";
}

/// Link, errors and PRBS result of a port, of one without a link the link alone. Counts the ports
/// that are tested. Returns what the port's JSON has.
Json testPort(Report& report, PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, int& tested) {
  constexpr unsigned int seconds = 1;
  const int slot = slotOf(port);
  const std::string title = portTitle(port, slot);
  const Subject about{"port", static_cast<int>(port)};
  report.progress("watching " + title);
  DiagnosticsResults results = diagnostics.checkLiveDownstreamPort(port, 0, true);
  Line line = linkLine(title, portTest(port, slot, "link"), results);
  const std::string reason = excuse(line, results, slot);
  if (!reason.empty()) {
    line.text = "link down: " + reason;
    line.verdict = Verdict::skipped;
  }
  report.line(line, about);
  tested += line.verdict == Verdict::skipped ? 0 : 1;
  if (line.verdict == Verdict::pass) {
    report.line(
        errorSummary(title + " errors", portTest(port, slot, "errors"), diagnostics, results),
        about);
    line = testPrbs(title + " PRBS", report, diagnostics, port, slot, seconds, results);
    report.line(line, about);
  }
  return portJson(diagnostics, port, slot, results, line.text);
}

void addPcie(Report& report) {
  report.begin({"pcie", "PCIe"}, 31, 17);
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  Json ports = Json::array();
  int tested = 0;
  for (const PCIeDownstreamPorts port : mainPorts) {
    ports.push_back(testPort(report, diagnostics, port, tested));
  }
  if (tested == 0) {
    report.line({"ports", "no link is up", Verdict::notTested, "", "ports"}, {});
  }
  report.end(ports);
}

/// Adds a step of a power cycle to the section and to its JSON.
void addStep(Report& report, Json& steps, const Line& line, int slot) {
  report.line(line, {"slot", slot});
  steps.push_back({{"step", line.label}, {"result", line.text}});
}

void cyclePower(Report& report, BackplaneInterface& backplane, int slot, Json& steps) {
  report.progress("power cycle of " + slotName(slot));
  const bool wasOn = backplane.isModuleOn(slot);
  report.willSwitch(undoOfPower(slot, wasOn));
  addStep(report, steps, switchSlot(backplane, slot, false), slot);
  addStep(report, steps, switchSlot(backplane, slot, true), slot);
  if (!wasOn) {
    switchSlot(backplane, slot, false);
  }
  report.switchedBack();
}

/// Turns each module that has a power controller off and on, and leaves it as it was.
void addPowerCycle(Report& report) {
  report.begin({"powerCycle", "Power cycle"}, 10, 3);
  Json steps = Json::array();
  Section troubles;
  guarded(troubles, [&] {
    BackplaneInterface backplane;
    report.takeMessages({});
    for (int slot = 0; slot < slotCount; ++slot) {
      if (hasExpander(slot)) {
        cyclePower(report, backplane, slot, steps);
      }
    }
  });
  for (const Line& line : troubles.lines) {
    report.line(line, {});
    steps.push_back({{"step", line.label}, {"result", line.text}});
  }
  report.end(steps);
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

const Command reportCommand = {
    "report", "test everything and report it", Needs::instrument, addOptions, true, run};
