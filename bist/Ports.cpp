// SPDX-License-Identifier: MIT
#include "bist/Ports.h"

#include <linux/pci_regs.h>
#include <pciaccess.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iterator>
#include <type_traits>

#include "bist/Undo.h"
#include "pcie/DiagnosticMaskRegs.h"

namespace {

/// By port.
constexpr struct {
  const char* name;
  int slot;
  unsigned int loopback;  ///< the port's bit in register 0x224 of its switch
} ports[] = {{"DownstreamPort1", 0, 0x1},    {"DownstreamPort5", 3, 0x10000},
             {"DownstreamPort7", 2, 0x1000}, {"DownstreamPort9", 1, 0x100},
             {"ShimPort1", -1, 0x1},         {"ShimPort5", -1, 0x100}};

static_assert(std::size(ports) == std::extent_v<decltype(DiagnosticMaskRegs)>,
              "each port has a row");

constexpr unsigned int linkStatusRegister = 0x68 + PCI_EXP_LNKSTA;  // of a port of a switch
constexpr unsigned int lastPrbsCount = 255;                         // where the counter stops

/// A register field of the record with the texts that it decodes to.
struct StatusWord {
  const char* label;
  const char* field;
  unsigned int DiagnosticsResults::*word;
  bool correctable;
};

using Results = DiagnosticsResults;
constexpr StatusWord statusWords[] = {
    {"root uncorrectable", "rootUncorrectableStatus", &Results::rootUncorrectableStatus, false},
    {"root correctable", "rootCorrectableStatus", &Results::rootCorrectableStatus, true},
    {"switch uncorrectable", "upstreamUncorrectableStatus", &Results::upstreamUncorrectableStatus,
     false},
    {"switch correctable", "upstreamCorrectableStatus", &Results::upstreamCorrectableStatus, true},
    {"port uncorrectable", "portUncorrectableStatus", &Results::portUncorrectableStatus, false},
    {"port correctable", "portCorrectableStatus", &Results::portCorrectableStatus, true}};

std::string decoded(const PCIeDiagnostics& diagnostics, const DiagnosticsResults& results,
                    const StatusWord& status) {
  const unsigned int word = results.*status.word;
  return status.correctable ? diagnostics.DecodeCorrectableStatus(word)
                            : diagnostics.DecodeUncorrectableStatus(word);
}

Json recordJson(const DiagnosticsResults& results) {
  return {{"pciSystemReady", results.pciSystemReady},
          {"rootPortFound", results.rootPortFound},
          {"upstreamFound", results.upstreamFound},
          {"rootLinkOk", results.rootLinkOk},
          {"rootLinkFault", results.rootLinkFault},
          {"rootLinkStatus", results.rootLinkStatus},
          {"rootDeviceStatus", results.rootDeviceStatus},
          {"rootUncorrectableStatus", results.rootUncorrectableStatus},
          {"rootCorrectableStatus", results.rootCorrectableStatus},
          {"rootPortIds", hex(results.rootPortIds)},
          {"upstreamIds", hex(results.upstreamIds)},
          {"downstreamLinkUp", results.downstreamLinkUp},
          {"upstreamUncorrectableStatus", results.upstreamUncorrectableStatus},
          {"upstreamCorrectableStatus", results.upstreamCorrectableStatus},
          {"portRegister1E8", results.portRegister1E8},
          {"portRegister1EC", results.portRegister1EC},
          {"portIds", hex(results.portIds)},
          {"portDataLinkActive", results.portDataLinkActive},
          {"portUncorrectableStatus", results.portUncorrectableStatus},
          {"portCorrectableStatus", results.portCorrectableStatus},
          {"reserved1", results.reserved1},
          {"reserved2", results.reserved2},
          {"prbsSync", results.prbsSync},
          {"prbsErrors", results.prbsErrors}};
}

}  // namespace

std::string portName(PCIeDownstreamPorts port) { return ports[port].name; }

int slotOf(PCIeDownstreamPorts port) { return ports[port].slot; }

std::string portTitle(PCIeDownstreamPorts port, int slot) {
  return portName(port) + " (slot " + std::to_string(slot) + ")";
}

std::string leftOn(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  constexpr int prbsColumn = 2;
  const unsigned int prbs = DiagnosticMaskRegs[port][prbsColumn];
  const bool hasPrbs = diagnostics.getDevicePortBits(port, 0x25C, prbs, 0) != 0;
  const bool hasLoopback = diagnostics.getDevicePortBits(port, 0x224, ports[port].loopback, 0) != 0;
  return hasPrbs && hasLoopback ? "PRBS and loopback"
         : hasPrbs              ? "PRBS"
         : hasLoopback          ? "loopback"
                                : "";
}

void addLeftOn(Section& section, PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  const std::string what = leftOn(diagnostics, port);
  section.data["leftOn"] = what;
  if (!what.empty()) {
    section.lines.push_back({"left on", what + "; talvero-bist stop ends that"});
  }
}

std::string hex(DeviceIds ids) {
  char text[12];
  std::snprintf(text, sizeof text, "%04x:%04x", ids.vendorId, ids.deviceId);
  return text;
}

std::string hex(unsigned int number) {
  char text[12];
  std::snprintf(text, sizeof text, "0x%x", number);
  return text;
}

LinkStatus linkStatus(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  constexpr double rates[] = {0, 2.5e9, 5e9, 8e9, 16e9};  // of one lane, by speed
  std::uint16_t word = 0;
  pci_device* const device = diagnostics.downstreamPorts[port];
  if (device != nullptr) {
    pci_device_cfg_read_u16(device, &word, linkStatusRegister);
  }
  const unsigned int speed = word & PCI_EXP_LNKSTA_CLS;
  const unsigned int lanes = (word & PCI_EXP_LNKSTA_NLW) >> PCI_EXP_LNKSTA_NLW_SHIFT;
  return {word, speed < std::size(rates) ? rates[speed] * lanes : 0};
}

bool found(DeviceIds ids) { return ids.vendorId != 0; }

std::string obstacle(const DiagnosticsResults& results) {
  const std::pair<bool, const char*> needed[] = {{results.pciSystemReady, "no PCI system"},
                                                 {results.rootPortFound, "root port not found"},
                                                 {results.upstreamFound, "switch not found"},
                                                 {found(results.portIds), "port not found"}};
  for (const auto& [there, reason] : needed) {
    if (!there) {
      return reason;
    }
  }
  return results.rootLinkOk ? "" : "root link down, status " + hex(results.rootLinkStatus);
}

std::string portTest(PCIeDownstreamPorts port, int slot, const std::string& what) {
  const std::string name = portName(port) + "." + what;
  return slotOf(port) < 0 ? "module" + std::to_string(slot) + "." + name : name;
}

Line linkLine(const std::string& label, const std::string& test,
              const DiagnosticsResults& results) {
  const std::string reason = obstacle(results);
  const bool up = reason.empty() && results.downstreamLinkUp;
  Line line{label, !reason.empty() ? reason : up ? "link up" : "link down", passIf(up)};
  line.test = test;
  line.figures = {{"up", up}, {"rootLinkStatus", hex(results.rootLinkStatus)}};
  line.limit = {{"up", true}};
  return line;
}

namespace {

/// What a PRBS test that took so long has found.
Line prbsLine(const DiagnosticsResults& results, unsigned int seconds, double tested) {
  const std::string reason = obstacle(results);
  if (!reason.empty()) {
    return {"", reason, Verdict::fail};
  }
  if (!results.prbsSync) {
    return {"", results.downstreamLinkUp ? "no sync" : "link lost", Verdict::fail};
  }
  const unsigned int errors = results.prbsErrors;
  if (errors == 0) {
    return {"", "no errors in " + std::to_string(seconds) + " s", Verdict::pass};
  }
  // The library counts twice a second.
  const double halves = std::max(1.0, std::round(2 * tested));
  char text[60];
  std::snprintf(text, sizeof text, "%s%u error%s in %.1f s",
                errors >= lastPrbsCount ? "at least " : "", errors, errors == 1 ? "" : "s",
                halves / 2);
  return {"", text, Verdict::fail};
}

}  // namespace

Line testPrbs(const std::string& label, Report& report, PCIeDiagnostics& diagnostics,
              PCIeDownstreamPorts port, int slot, unsigned int seconds, DiagnosticsResults& results,
              unsigned int mostErrors) {
  report.progress("PRBS on " + portTitle(port, slot), seconds);
  return runPrbs(label, report, diagnostics, port, slot, seconds, results, mostErrors);
}

Line runPrbs(const std::string& label, Report& report, PCIeDiagnostics& diagnostics,
             PCIeDownstreamPorts port, int slot, unsigned int seconds, DiagnosticsResults& results,
             unsigned int mostErrors) {
  const Json before = undoOfPrbs(diagnostics, port, slot);
  report.willSwitch(before);
  double tested = 0;
  unsigned int errors = 0;
  do {
    const auto start = std::chrono::steady_clock::now();
    const double left = std::max(0.0, std::round(seconds - tested));
    results = diagnostics.testDownstreamPort(port, static_cast<unsigned int>(left));
    tested += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    errors += results.prbsErrors;
  } while (results.prbsErrors != 0 && results.prbsSync && errors <= mostErrors &&
           tested + 0.5 < seconds);
  results.prbsErrors = errors;
  putBack(diagnostics, before);
  report.switchedBack();
  Line line = prbsLine(results, seconds, tested);
  if (line.verdict == Verdict::fail && results.prbsSync && obstacle(results).empty()) {
    line.verdict = passIf(errors <= mostErrors);
  }
  line.label = label;
  line.test = portTest(port, slot, "prbs");
  line.figures = {{"sync", results.prbsSync},
                  {"errors", errors},
                  {"seconds", tested},
                  {"secondsAsked", seconds}};
  line.limit = {{"errors", mostErrors}};
  return line;
}

std::vector<Line> errorLines(const std::string& test, const PCIeDiagnostics& diagnostics,
                             const DiagnosticsResults& results) {
  std::vector<Line> lines;
  for (const StatusWord& status : statusWords) {
    Line line{status.label, decoded(diagnostics, results, status),
              passIf((results.*status.word) == 0)};
    line.test = test + "." + status.field;
    line.figures = {{"status", hex(results.*status.word)}};
    line.limit = {{"status", "0x0"}};
    lines.push_back(line);
  }
  return lines;
}

Line errorSummary(const std::string& label, const std::string& test,
                  const PCIeDiagnostics& diagnostics, const DiagnosticsResults& results) {
  Line summary{label, ""};
  for (const Line& line : errorLines(test, diagnostics, results)) {
    summary.figures[line.test.substr(test.size() + 1)] = line.figures["status"];
    if (line.verdict == Verdict::fail) {
      summary.text += (summary.text.empty() ? "" : "; ") + line.label + ": " + line.text;
    }
  }
  summary.verdict = passIf(summary.text.empty());
  summary.text = summary.text.empty() ? "no errors latched" : summary.text;
  summary.test = test;
  summary.limit = {{"status", "0x0"}};
  return summary;
}

Json portJson(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, int slot,
              const DiagnosticsResults& results, const std::string& result) {
  Json texts;
  for (const StatusWord& status : statusWords) {
    texts[status.field] = decoded(diagnostics, results, status);
  }
  return {{"port", static_cast<int>(port)},
          {"name", portName(port)},
          {"slot", slot},
          {"result", result},
          {"record", recordJson(results)},
          {"decoded", texts}};
}
