// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"

namespace {

PortOption target;
unsigned int seconds = 0;

void addOptions(CLI::App& app) {
  target.addTo(app);
  addSeconds(app, seconds, "collect them for so long, 0 to 86400");
}

void run(Report& report) {
  Section section{"errors", "Errors " + target.title()};
  section.about = target.subject();
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  const DiagnosticsResults results = target.watch(report, diagnostics, seconds, true);
  const std::string reason = obstacle(results);
  if (found(results.portIds)) {
    section.lines = errorLines(target.test("errors"), diagnostics, results);
  }
  if (!reason.empty()) {
    Line line{"port", reason, Verdict::fail};
    line.test = target.test("errors");
    section.lines.insert(section.lines.begin(), line);
  }
  section.data = portJson(diagnostics, target.port, target.slot(), results, reason);
  addLeftOn(section, diagnostics, target.port);
  report.add(section);
}

}  // namespace

const Command errorsCommand = {"errors", "name the errors that a PCIe port latches", Needs::spb,
                               addOptions, run};
