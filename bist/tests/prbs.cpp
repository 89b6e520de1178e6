// SPDX-License-Identifier: MIT
#include "bist/Tests.h"

namespace {

Line run(Report& report, TestedPort& port) {
  const double rate = linkStatus(port.diagnostics, port.port).rate;
  DiagnosticsResults& results = port.results;
  Line line = testPrbs(port.title() + " PRBS", report, port.diagnostics, port.port, port.slot(),
                       port.choice.seconds, results, port.limits().prbsErrors);
  // What the checker has not kept up with is not tested.
  line.figures["errors"] = results.prbsSync ? Json(results.prbsErrors) : Json(nullptr);
  line.figures["bits"] = results.prbsSync ? line.figures["seconds"].get<double>() * rate : 0;
  return line;
}

}  // namespace

extern const Test prbsTest = {
    "prbs",
    "PRBS loopback test of the ports",
    {{"PORT.prbs", {{"seconds", "seconds"}, {"errors", "errors"}, {"bits", "bits"}}, "errors"}},
    Needs::spb,
    false,
    nullptr,
    run};
