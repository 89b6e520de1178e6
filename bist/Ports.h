// SPDX-License-Identifier: MIT
#pragma once

#include "bist/Report.h"
#include "pcie/PCIeDiagnostics.h"

/// What the tests of a PCIe port say, as lines and as JSON.

/// The ports' names, which are those of their enumerators.
std::string portName(PCIeDownstreamPorts port);

/// The slot that a port of the main switch leads to; -1 for a port on the shim switch of a module.
int slotOf(PCIeDownstreamPorts port);

/// "DownstreamPort5 (slot 3)".
std::string portTitle(PCIeDownstreamPorts port, int slot);

/// The ports of the main switch.
constexpr PCIeDownstreamPorts mainPorts[] = {DownstreamPort1, DownstreamPort5, DownstreamPort7,
                                             DownstreamPort9};

/// What a test has left switched on at a port: "PRBS", "loopback" or both; empty for nothing.
std::string leftOn(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port);

/// Adds a line that says so, if something is.
void addLeftOn(Section& section, PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port);

/// "vendor:device", four hexadecimal digits each.
std::string hex(DeviceIds ids);

bool found(DeviceIds ids);

std::string hex(unsigned int number);

/// What the link below a port has come to.
struct LinkStatus {
  unsigned int word;  ///< the port's Link Status register
  double rate;        ///< bits a second on the line, all lanes together; 0 for an unknown speed
};
LinkStatus linkStatus(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port);

/// The name of a test of a port, such as "DownstreamPort9.link" or "module1.ShimPort5.link".
std::string portTest(PCIeDownstreamPorts port, int slot, const std::string& what);

/// What keeps a test of the port from meaning anything; empty when nothing does.
std::string obstacle(const DiagnosticsResults& results);

/// @param test  its name
Line linkLine(const std::string& label, const std::string& test, const DiagnosticsResults& results);

/// Runs the PRBS loopback test, which ends at the first errors, and again for the time that is left
/// while no more have come than are allowed.
///
/// @param slot        that the port leads to
/// @param results     receives the test's, with the errors of all runs
/// @param mostErrors  that pass
/// @return says for how long the port was tested
Line testPrbs(const std::string& label, Report& report, PCIeDiagnostics& diagnostics,
              PCIeDownstreamPorts port, int slot, unsigned int seconds, DiagnosticsResults& results,
              unsigned int mostErrors = 0);

/// The same without a word on the progress.
Line runPrbs(const std::string& label, Report& report, PCIeDiagnostics& diagnostics,
             PCIeDownstreamPorts port, int slot, unsigned int seconds, DiagnosticsResults& results,
             unsigned int mostErrors = 0);

/// A line for each status word of the path. Names of tests begin with `test`.
std::vector<Line> errorLines(const std::string& test, const PCIeDiagnostics& diagnostics,
                             const DiagnosticsResults& results);

/// One line for all errors of the path.
Line errorSummary(const std::string& label, const std::string& test,
                  const PCIeDiagnostics& diagnostics, const DiagnosticsResults& results);

/// @param slot    that the port leads to
/// @param result  what the text output says
Json portJson(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, int slot,
              const DiagnosticsResults& results, const std::string& result);
