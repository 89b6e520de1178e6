// SPDX-License-Identifier: MIT
#include "bist/Tests.h"

#include <algorithm>
#include <exception>

#include "bist/Ports.h"
#include "bist/Slots.h"
#include "bist/Undo.h"

namespace {

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
Json testPort(Report& report, PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port,
              unsigned int seconds, const Choice& choice, int& tested) {
  const Limits limits = choice.expectation.limitsOf(port);
  const int slot = slotOf(port);
  const std::string title = portTitle(port, slot);
  const Subject about{"port", static_cast<int>(port)};
  report.progress("watching " + title);
  DiagnosticsResults results = diagnostics.checkLiveDownstreamPort(port, 0, true);
  Line line = linkLine(title, portTest(port, slot, "link"), results);
  const LinkStatus status = linkStatus(diagnostics, port);
  line.figures["portLinkStatus"] = hex(status.word);
  const std::string reason = excuse(line, results, slot);
  if (!reason.empty()) {
    line.text = "link down: " + reason;
    line.verdict = Verdict::skipped;
  }
  report.line(line, about);
  tested += line.verdict == Verdict::skipped ? 0 : 1;
  const bool up = line.verdict == Verdict::pass;
  if (up && choice.hasTest("errors")) {
    DiagnosticsResults counting = results;
    counting.portCorrectableStatus &= ~limits.ignoredCorrectable;
    counting.portUncorrectableStatus &= ~limits.ignoredUncorrectable;
    report.line(
        errorSummary(title + " errors", portTest(port, slot, "errors"), diagnostics, counting),
        about);
  }
  if (up && choice.hasTest("prbs")) {
    line = testPrbs(title + " PRBS", report, diagnostics, port, slot, seconds, results);
    // What the checker has not kept up with is not tested.
    line.figures["bits"] =
        results.prbsSync ? line.figures["seconds"].get<double>() * status.rate : 0;
    if (results.prbsSync && obstacle(results).empty() && results.prbsErrors <= limits.prbsErrors) {
      line.verdict = Verdict::pass;
    }
    line.limit = {{"errors", limits.prbsErrors}};
    report.line(line, about);
  }
  return portJson(diagnostics, port, slot, results, line.text);
}

/// Adds a step of a power cycle to the section and to its JSON.
void addStep(Report& report, Json& steps, const Line& line, int slot) {
  report.line(line, {"slot", slot});
  steps.push_back({{"step", line.label}, {"result", line.text}});
}

void cycleSlot(Report& report, BackplaneInterface& backplane, int slot, Json& steps) {
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

}  // namespace

std::vector<std::string> portTests() {
  std::vector<std::string> names;
  for (const PCIeDownstreamPorts port : mainPorts) {
    for (const char* const what : {"link", "errors", "prbs"}) {
      names.push_back(portTest(port, slotOf(port), what));
    }
  }
  names.emplace_back("ports");
  return names;
}

// PORT is a port of the main switch or, after "moduleN.", of the shim switch of a module.
const std::vector<TestKind> testKinds = {
    {"board", "number and straps of the board", "board.known, board.straps", true},
    {"slots", "power controllers of the slots", "slotN.controller", true},
    {"link", "links of the ports", "PORT.link; ports, where none is up", true},
    {"errors", "errors that the ports' paths latch", "PORT.errors", true},
    {"prbs", "PRBS loopback test of the ports", "PORT.prbs", true},
    {"margin", "transmitter settings without errors", "PORT.margin", false},
    {"power", "modules turned off and on", "slotN.power-off, slotN.power-on; backplane", false},
    {"expectation", "what must be there",
     "expected.board, expected.slotN.module, "
     "expected.slotN.controller, expected.PORT.link",
     false},
    {"topology", "description of a module in the device tree", "moduleN.topology", false},
    {"shim", "shim switch of a module", "moduleN.shim", false},
    {"tx", "transmitter settings", "PORT.tx-drive-level and the other settings", false},
    {"stop", "PRBS and loopback switched off", "PORT.stop", false},
    {"register", "a register read or written", "PORT.register", false},
    {"capture", "everything read for a description", "capture", false},
};

bool Choice::hasTest(const std::string& kind) const {
  return tests.empty() || std::find(tests.begin(), tests.end(), kind) != tests.end();
}

bool Choice::hasPort(PCIeDownstreamPorts port) const {
  return (ports.empty() || std::find(ports.begin(), ports.end(), port) != ports.end()) &&
         hasSlot(slotOf(port));
}

bool Choice::hasSlot(int slot) const {
  return slots.empty() || std::find(slots.begin(), slots.end(), slot) != slots.end();
}

void testPorts(Report& report, PCIeDiagnostics& diagnostics, unsigned int seconds,
               const Choice& choice) {
  Json ports = Json::array();
  int tested = 0;
  for (const PCIeDownstreamPorts port : mainPorts) {
    if (choice.hasPort(port)) {
      ports.push_back(testPort(report, diagnostics, port, seconds, choice, tested));
    }
  }
  if (tested == 0 && !choice.expectation.expectsNoLink()) {
    report.line({"ports", ports.empty() ? "none is chosen" : "no link is up", Verdict::notTested,
                 "", "ports"},
                {});
  }
  report.end(ports);
}

std::vector<int> slotsWithPower(const Choice& choice) {
  std::vector<int> slots;
  for (int slot = 0; slot < slotCount; ++slot) {
    if (choice.hasSlot(slot) && hasExpander(slot)) {
      slots.push_back(slot);
    }
  }
  return slots;
}

std::vector<std::string> powerTests(const std::vector<int>& slots) {
  std::vector<std::string> names;
  for (const int slot : slots) {
    names.push_back(slotTest(slot, "power-off"));
    names.push_back(slotTest(slot, "power-on"));
  }
  names.emplace_back("backplane");
  return names;
}

void cyclePower(Report& report, const std::vector<int>& slots) {
  report.begin({"powerCycle", "Power cycle"}, 10, 3);
  Json steps = Json::array();
  Section troubles;
  guarded(troubles, [&] {
    BackplaneInterface backplane;
    report.takeMessages({});
    for (const int slot : slots) {
      cycleSlot(report, backplane, slot, steps);
    }
  });
  for (const Line& line : troubles.lines) {
    report.line(line, {});
    steps.push_back({{"step", line.label}, {"result", line.text}});
  }
  report.end(steps);
}
