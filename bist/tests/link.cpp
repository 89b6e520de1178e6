// SPDX-License-Identifier: MIT
#include <exception>

#include "bist/Slots.h"
#include "bist/Tests.h"

namespace {

/// Why the link to a slot need not be up: the slot is empty or off. Empty when it has to be, or
/// when the modules' topology keeps that from being found out.
std::string reasonForNoLink(int slot) {
  try {
    BackplaneInterface backplane(slot);
    if (!backplane.isModulePresent(slot)) {
      return slotName(slot) + " is empty";
    }
    return hasExpander(slot) && !backplane.isModuleOn(slot) ? slotName(slot) + " is off" : "";
  } catch (const std::exception&) {
    return "";
  }
}

Line run(Report& report, TestedPort& port) {
  report.progress("watching " + port.title());
  port.results = port.diagnostics.checkLiveDownstreamPort(port.port, 0, true);
  Line line = linkLine(port.title(), port.test("link"), port.results);
  port.linkIsUp = line.verdict == Verdict::pass;
  line.figures["portLinkStatus"] = hex(linkStatus(port.diagnostics, port.port).word);
  const bool isThere = found(port.results.portIds);
  const std::string reason = port.linkIsUp || !isThere ? "" : reasonForNoLink(port.slot());
  if (!reason.empty()) {
    line.text = "link down: " + reason;
    line.verdict = Verdict::skipped;
  }
  return line;
}

}  // namespace

extern const Test linkTest = {"link",
                              "links of the ports; the result \"ports\" comes where none is up",
                              {{"PORT.link", {{"status", "portLinkStatus"}}}},
                              Needs::spb,
                              false,
                              nullptr,
                              run};
