// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"

namespace {

PortOption target;
unsigned int seconds = 0;

void addOptions(CLI::App& app) {
  target.addTo(app);
  addSeconds(app, seconds, "how long, 0 to 86400")->required();
}

void run(Report& report) {
  Section section{"prbs", "PRBS"};
  section.about = target.subject();
  report.begin(section, target.title().size(), 0);
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  target.reach(diagnostics);
  DiagnosticsResults results;
  const Line line =
      testPrbs(target.title(), report, diagnostics, target.port, target.slot(), seconds, results);
  report.line(line, section.about);
  report.end(portJson(diagnostics, target.port, target.slot(), results, line.text));
}

}  // namespace

const Command prbsCommand = {"prbs", "run the PRBS loopback test on a PCIe port", Needs::spb,
                             addOptions, run};
