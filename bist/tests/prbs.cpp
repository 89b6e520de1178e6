// SPDX-License-Identifier: MIT
#include "bist/Tests.h"

namespace {

Line run(Report& report, TestedPort& port) {
  const double rate = linkStatus(port.diagnostics, port.port).rate;
  const unsigned int mostErrors = port.limits().prbsErrors;
  DiagnosticsResults& results = port.results;
  Line line = testPrbs(port.title() + " PRBS", report, port.diagnostics, port.port, port.slot(),
                       port.choice.seconds, results);
  // What the checker has not kept up with is not tested.
  line.figures["bits"] = results.prbsSync ? line.figures["seconds"].get<double>() * rate : 0;
  if (results.prbsSync && obstacle(results).empty() && results.prbsErrors <= mostErrors) {
    line.verdict = Verdict::pass;
  }
  line.limit = {{"errors", mostErrors}};
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
