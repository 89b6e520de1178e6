// SPDX-License-Identifier: MIT
#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"

namespace {

unsigned int module = 0;

void addOptions(CLI::App& app) {
  app.add_option("MODULE", module, "0 to 3")->required()->check(wholeNumber(3))->option_text(" ");
}

void run(Report& report) {
  PCIeDiagnostics diagnostics;
  diagnostics.setupShimSwitch(module);
  const bool ok = diagnostics.shimUpstreamFound;
  Section section{"shim", "Shim switch of module " + std::to_string(module)};
  section.about = {"module", static_cast<int>(module)};
  section.showTrace = true;
  section.lines.push_back({"switch", ok ? "set up" : "not found", passIf(ok), "",
                           "module" + std::to_string(module) + ".shim"});
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
  report.add(section);
}

}  // namespace

const Command shimCommand = {"shim", "find and set up the shim switch of a module", Needs::spb,
                             addOptions, run};
