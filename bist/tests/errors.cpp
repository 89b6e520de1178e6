// SPDX-License-Identifier: MIT
#include <bitset>
#include <string>

#include "bist/Tests.h"

namespace {

/// How many bits are set in status words.
std::size_t errorsIn(const Json& words) {
  std::size_t errors = 0;
  for (const Json& word : words) {
    errors += std::bitset<32>(std::stoul(word.get<std::string>(), nullptr, 0)).count();
  }
  return errors;
}

Line run(Report& /*report*/, TestedPort& port) {
  const Limits limits = port.limits();
  DiagnosticsResults counting = port.results;
  counting.portCorrectableStatus &= ~limits.ignoredCorrectable;
  counting.portUncorrectableStatus &= ~limits.ignoredUncorrectable;
  Line line =
      errorSummary(port.title() + " errors", port.test("errors"), port.diagnostics, counting);
  line.figures["errors"] = errorsIn(line.figures);
  line.figures.update(errorSummary("", "", port.diagnostics, port.results).figures);
  line.limit["ignoredCorrectable"] = hex(limits.ignoredCorrectable);
  line.limit["ignoredUncorrectable"] = hex(limits.ignoredUncorrectable);
  return line;
}

}  // namespace

extern const Test errorsTest = {"errors",
                                "errors that the ports' paths latch",
                                {{"PORT.errors", {{"errors", "errors"}}, "errors"}},
                                Needs::spb,
                                false,
                                nullptr,
                                run};
