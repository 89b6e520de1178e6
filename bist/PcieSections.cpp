#include <cstdio>
#include <iterator>

#include "bist/Progress.h"
#include "bist/Sections.h"
#include "pcie/PCIeDiagnostics.h"

namespace {

constexpr const char* portNames[] = {"DownstreamPort1", "DownstreamPort5", "DownstreamPort7",
                                     "DownstreamPort9", "ShimPort1",       "ShimPort5"};

constexpr PCIeDownstreamPorts mainPorts[] = {DownstreamPort1, DownstreamPort5, DownstreamPort7,
                                             DownstreamPort9};

std::string hex(unsigned int number) {
  char text[12];
  std::snprintf(text, sizeof text, "0x%x", number);
  return text;
}

std::string hex(DeviceIds ids) {
  char text[12];
  std::snprintf(text, sizeof text, "%04x:%04x", ids.vendorId, ids.deviceId);
  return text;
}

bool found(DeviceIds ids) { return ids.vendorId != 0; }

std::string inSeconds(unsigned int seconds) { return " in " + std::to_string(seconds) + " s"; }

void setUpShim(PCIeDiagnostics& diagnostics, PortChoice choice) {
  if (choice.port == ShimPort1 || choice.port == ShimPort5) {
    diagnostics.setupShimSwitch(choice.shimModule);
  }
}

/// A register field of the record with the texts that it decodes to.
struct StatusWord {
  const char* label;
  const char* field;
  unsigned int DiagnosticsResults::*word;
  bool correctable;
};

constexpr StatusWord statusWords[] = {
    {"root uncorrectable", "rootUncorrectableStatus", &DiagnosticsResults::rootUncorrectableStatus,
     false},
    {"root correctable", "rootCorrectableStatus", &DiagnosticsResults::rootCorrectableStatus, true},
    {"switch uncorrectable", "upstreamUncorrectableStatus",
     &DiagnosticsResults::upstreamUncorrectableStatus, false},
    {"switch correctable", "upstreamCorrectableStatus",
     &DiagnosticsResults::upstreamCorrectableStatus, true},
    {"port uncorrectable", "portUncorrectableStatus", &DiagnosticsResults::portUncorrectableStatus,
     false},
    {"port correctable", "portCorrectableStatus", &DiagnosticsResults::portCorrectableStatus, true},
};

std::string decoded(const PCIeDiagnostics& diagnostics, const DiagnosticsResults& results,
                    const StatusWord& status) {
  const unsigned int word = results.*status.word;
  return status.correctable ? diagnostics.DecodeCorrectableStatus(word)
                            : diagnostics.DecodeUncorrectableStatus(word);
}

Json recordJson(const DiagnosticsResults& results) {
  return {
      {"pciSystemReady", results.pciSystemReady},
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
      {"prbsErrors", results.prbsErrors},
  };
}

Json portJson(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port,
              const DiagnosticsResults& results, const std::string& result) {
  Json texts;
  for (const StatusWord& status : statusWords) {
    texts[status.field] = decoded(diagnostics, results, status);
  }
  return {{"port", static_cast<int>(port)},
          {"name", portName(port)},
          {"result", result},
          {"record", recordJson(results)},
          {"decoded", texts}};
}

/// What keeps a test of the port from meaning anything; empty when nothing does.
std::string obstacle(const DiagnosticsResults& results) {
  if (!results.pciSystemReady) {
    return "no PCI system";
  }
  if (!results.rootPortFound) {
    return "root port not found";
  }
  if (!results.upstreamFound) {
    return "switch not found";
  }
  if (!found(results.portIds)) {
    return "port not found";
  }
  return results.rootLinkOk ? "" : "root link down, status " + hex(results.rootLinkStatus);
}

Line linkLine(const std::string& label, const DiagnosticsResults& results) {
  const std::string reason = obstacle(results);
  if (!reason.empty()) {
    return {label, reason, Verdict::fail};
  }
  return {label, results.downstreamLinkUp ? "link up" : "link down",
          passIf(results.downstreamLinkUp)};
}

Line prbsLine(const std::string& label, const DiagnosticsResults& results, unsigned int seconds) {
  const std::string reason = obstacle(results);
  if (!reason.empty()) {
    return {label, reason, Verdict::fail};
  }
  if (!results.prbsSync) {
    return {label, results.downstreamLinkUp ? "no sync" : "link lost", Verdict::fail};
  }
  if (results.prbsErrors != 0) {
    const std::string count = std::to_string(results.prbsErrors);
    return {label, count + (count == "1" ? " error" : " errors") + inSeconds(seconds),
            Verdict::fail};
  }
  return {label, "no errors" + inSeconds(seconds), Verdict::pass};
}

std::vector<Line> errorLines(const PCIeDiagnostics& diagnostics,
                             const DiagnosticsResults& results) {
  std::vector<Line> lines;
  for (const StatusWord& status : statusWords) {
    lines.push_back(
        {status.label, decoded(diagnostics, results, status), passIf((results.*status.word) == 0)});
  }
  return lines;
}

/// One line for all errors of a path.
Line errorSummary(const std::string& label, const PCIeDiagnostics& diagnostics,
                  const DiagnosticsResults& results) {
  std::string text;
  for (const Line& line : errorLines(diagnostics, results)) {
    if (line.verdict == Verdict::fail) {
      text += (text.empty() ? "" : "; ") + line.label + ": " + line.text;
    }
  }
  return {label, text.empty() ? "no errors latched" : text, passIf(text.empty())};
}

std::string progressTitle(const char* what, PCIeDownstreamPorts port) {
  return std::string(what) + " " + portName(port);
}

}  // namespace

const char* portName(PCIeDownstreamPorts port) { return portNames[port]; }

Section pcieSection() {
  constexpr unsigned int seconds = 1;
  Section section{"pcie", "PCIe"};
  PCIeDiagnostics diagnostics;
  Json ports = Json::array();
  for (const PCIeDownstreamPorts port : mainPorts) {
    const std::string name = portName(port);
    const DiagnosticsResults live = diagnostics.checkLiveDownstreamPort(port, 0, true);
    section.lines.push_back(linkLine(name, live));
    if (section.lines.back().verdict == Verdict::fail) {
      if (const auto reason = found(live.portIds) ? reasonForNoLink(port) : std::nullopt) {
        section.lines.back() = {name, "link down: " + *reason};
      }
      ports.push_back(portJson(diagnostics, port, live, section.lines.back().text));
      continue;
    }
    section.lines.push_back(errorSummary(name + " errors", diagnostics, live));
    const DiagnosticsResults test = diagnostics.testDownstreamPort(port, seconds);
    section.lines.push_back(prbsLine(name + " PRBS", test, seconds));
    ports.push_back(portJson(diagnostics, port, test, section.lines.back().text));
  }
  section.data = ports;
  return section;
}

Section linkSection(PortChoice choice, unsigned int seconds, bool clear) {
  PCIeDiagnostics diagnostics;
  setUpShim(diagnostics, choice);
  const Progress progress(progressTitle("watching", choice.port), seconds);
  const DiagnosticsResults results =
      diagnostics.checkLiveDownstreamPort(choice.port, seconds, clear);
  Section section{"link", "Link", {linkLine(portName(choice.port), results)}};
  section.data = portJson(diagnostics, choice.port, results, section.lines[0].text);
  if (found(results.portIds)) {
    section.lines.push_back(
        {"data link layer", results.portDataLinkActive ? "active" : "inactive"});
    Line errors = errorSummary("errors", diagnostics, results);
    errors.verdict = Verdict::none;
    section.lines.push_back(errors);
  }
  return section;
}

Section errorsSection(PortChoice choice, unsigned int seconds) {
  PCIeDiagnostics diagnostics;
  setUpShim(diagnostics, choice);
  const Progress progress(progressTitle("watching", choice.port), seconds);
  const DiagnosticsResults results =
      diagnostics.checkLiveDownstreamPort(choice.port, seconds, true);
  Section section{"errors", std::string("Errors ") + portName(choice.port)};
  const std::string reason = obstacle(results);
  if (found(results.portIds)) {
    section.lines = errorLines(diagnostics, results);
  }
  if (!reason.empty()) {
    section.lines.insert(section.lines.begin(), {"port", reason, Verdict::fail});
  }
  section.data = portJson(diagnostics, choice.port, results, reason);
  return section;
}

Section prbsSection(PortChoice choice, unsigned int seconds) {
  PCIeDiagnostics diagnostics;
  setUpShim(diagnostics, choice);
  const Progress progress(progressTitle("PRBS on", choice.port), seconds);
  const DiagnosticsResults results = diagnostics.testDownstreamPort(choice.port, seconds);
  Section section{"prbs", "PRBS", {prbsLine(portName(choice.port), results, seconds)}};
  section.data = portJson(diagnostics, choice.port, results, section.lines[0].text);
  return section;
}

Section shimSection(unsigned int module) {
  PCIeDiagnostics diagnostics;
  diagnostics.setupShimSwitch(module);
  const bool ok = diagnostics.shimUpstreamFound;
  Section section{"shim", "Shim switch of module " + std::to_string(module)};
  section.showTrace = true;
  section.lines.push_back({"switch", ok ? "set up" : "not found", passIf(ok)});
  if (ok) {
    section.lines.push_back({"upstream port", hex(diagnostics.shimUpstreamIds)});
    section.lines.push_back({"ShimPort1", hex(diagnostics.downstreamIds[ShimPort1])});
    section.lines.push_back({"ShimPort5", hex(diagnostics.downstreamIds[ShimPort5])});
  }
  section.data = {{"module", module},
                  {"shimUpstreamFound", ok},
                  {"shimUpstreamIds", hex(diagnostics.shimUpstreamIds)},
                  {"ShimPort1", hex(diagnostics.downstreamIds[ShimPort1])},
                  {"ShimPort5", hex(diagnostics.downstreamIds[ShimPort5])}};
  return section;
}

namespace {

constexpr unsigned int postCursorRegister = 0xBA8;
constexpr unsigned int driveLevelRegister = 0xB98;
constexpr unsigned int transmitterMask = 0xF;

/// A setting's name and how it is made; the result is whether it took effect.
struct Transmitter {
  const char* name;
  bool onOff;
  bool (*set)(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, unsigned int value);
};

bool readsBack(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, unsigned int reg,
               unsigned int value) {
  return diagnostics.getDevicePortBits(port, reg, transmitterMask, 0) == value;
}

constexpr Transmitter transmitters[] = {
    {"drive level", false,
     [](PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, unsigned int value) {
       return diagnostics.setDriveLevel(port, 0, value) &&
              readsBack(diagnostics, port, driveLevelRegister, value);
     }},
    {"post-cursor", false,
     [](PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, unsigned int value) {
       return diagnostics.setPostCursorEmphasis(port, 0, value) &&
              readsBack(diagnostics, port, postCursorRegister, value);
     }},
    {"quiet transmit", true,
     [](PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, unsigned int value) {
       return diagnostics.setTo5GQuietTransmitWithoutLoopback(port, value != 0);
     }},
    {"analog loopback", true,
     [](PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, unsigned int value) {
       return diagnostics.setPCIeExternalAnalogLoopback(port, value != 0);
     }},
};

}  // namespace

Section transmitterSection(PortChoice choice, TransmitterSetting setting, unsigned int value) {
  PCIeDiagnostics diagnostics;
  setUpShim(diagnostics, choice);
  const Transmitter& transmitter = transmitters[static_cast<int>(setting)];
  Section section{"tx", std::string("Transmitter of ") + portName(choice.port)};
  const std::string wanted =
      transmitter.onOff ? (value != 0 ? "on" : "off") : std::to_string(value);
  std::string text = "port not found";
  bool ok = false;
  if (diagnostics.downstreamPorts[choice.port] != nullptr) {
    ok = transmitter.set(diagnostics, choice.port, value);
    text = wanted + (ok ? "" : ", but it does not read back");
  }
  section.lines.push_back({transmitter.name, text, passIf(ok)});
  section.data = {{"port", static_cast<int>(choice.port)},
                  {"name", portName(choice.port)},
                  {"setting", transmitter.name},
                  {"value", wanted},
                  {"ok", ok}};
  return section;
}
