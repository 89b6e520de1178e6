// SPDX-License-Identifier: MIT
#include <iterator>

#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"

namespace {

PortOption target;
bool namesPort = false;

void addOptions(CLI::App& app) {
  target.addTo(app, false);
  app.get_option("PORT")->each([](const std::string&) { namesPort = true; });
}

/// Ends PRBS and loopback on ports of one switch, and judges what they read afterwards.
void stop(PCIeDiagnostics& diagnostics, const std::vector<PCIeDownstreamPorts>& ports, int module,
          std::vector<Line>& lines) {
  std::vector<std::string> before;  // of all: PRBS of one port ends with another's
  for (const PCIeDownstreamPorts port : ports) {
    before.push_back(leftOn(diagnostics, port));
  }
  for (std::size_t index = 0; index < ports.size(); ++index) {
    const PCIeDownstreamPorts port = ports[index];
    const int slot = slotOf(port) < 0 ? module : slotOf(port);
    const std::string& was = before[index];
    Line line{portTitle(port, slot), "port not found", Verdict::fail};
    line.test = portTest(port, slot, "stop");
    if (diagnostics.downstreamPorts[port] != nullptr) {
      if (!was.empty()) {
        diagnostics.tearDownPRBSLoopbackTest(port);
      }
      const bool off = leftOn(diagnostics, port).empty();
      line.text = was.empty() ? "nothing was on" : was + (off ? ", now off" : ", and stays on");
      line.verdict = passIf(off);
    }
    lines.push_back(line);
  }
}

/// On all ports of the main switch, and of the shim switches that are found.
void stopEverywhere(PCIeDiagnostics& diagnostics, std::vector<Line>& lines) {
  stop(diagnostics, {std::begin(mainPorts), std::end(mainPorts)}, 0, lines);
  for (unsigned int module = 0; module < std::size(mainPorts); ++module) {
    diagnostics.setupShimSwitch(module);
    if (diagnostics.shimUpstreamFound) {
      stop(diagnostics, {ShimPort1, ShimPort5}, static_cast<int>(module), lines);
    }
  }
}

void run(Report& report) {
  Section section{"stop", "PRBS and loopback"};
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  if (namesPort) {
    section.about = target.subject();
    target.reach(diagnostics);
    stop(diagnostics, {target.port}, target.slot(), section.lines);
  } else {
    stopEverywhere(diagnostics, section.lines);
  }
  section.data = Json::array();
  for (const Line& line : section.lines) {
    section.data.push_back({{"test", line.test}, {"result", line.text}});
  }
  report.add(section);
}

}  // namespace

const Command stopCommand = {"stop", "switch PRBS and loopback off, on a port or on all",
                             Needs::spb, addOptions, run};
