// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"
#include "bist/Progress.h"

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
  PCIeDiagnostics diagnostics;
  report.takeMessages(section, {});
  target.reach(diagnostics);
  const Progress progress("PRBS on " + target.title(), seconds);
  DiagnosticsResults results;
  const Line line = testPrbs(target.title(), diagnostics, target.port, seconds, results);
  section.lines.push_back(line);
  section.data = portJson(diagnostics, target.port, target.slot(), results, line.text);
  report.add(section);
}

}  // namespace

const Command prbsCommand = {"prbs", "run the PRBS loopback test on a PCIe port", Needs::spb,
                             addOptions, run};
