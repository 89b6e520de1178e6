// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"

namespace {

PortOption target;
unsigned int seconds = 0;
bool clear = false;

void addOptions(CLI::App& app) {
  target.addTo(app);
  addSeconds(app, seconds, "watch the link for so long, 0 to 86400");
  app.add_flag("--clear", clear, "clear latched errors first")->disable_flag_override();
}

void run(Report& report) {
  Section section{"link", "Link"};
  section.about = target.subject();
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  const DiagnosticsResults results = target.watch(report, diagnostics, seconds, clear);
  section.lines.push_back(linkLine(target.title(), target.test("link"), results));
  section.data = portJson(diagnostics, target.port, target.slot(), results, section.lines[0].text);
  if (found(results.portIds)) {
    section.lines.push_back(
        {"data link layer", results.portDataLinkActive ? "active" : "inactive"});
    const Line errors = errorSummary("errors", "", diagnostics, results);
    section.lines.push_back({errors.label, errors.text});
    addLeftOn(section, diagnostics, target.port);
  }
  report.add(section);
}

}  // namespace

const Command linkCommand = {"link", "say whether a PCIe port's link is up", Needs::spb, addOptions,
                             run};
