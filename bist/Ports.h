// SPDX-License-Identifier: MIT
#pragma once

#include "bist/Report.h"
#include "pcie/PCIeDiagnostics.h"

/// What the tests of a PCIe port say, as lines and as JSON.

/// The ports' names, which are those of their enumerators.
std::string portName(PCIeDownstreamPorts port);

/// "vendor:device", four hexadecimal digits each.
std::string hex(DeviceIds ids);

bool found(DeviceIds ids);

/// What keeps a test of the port from meaning anything; empty when nothing does.
std::string obstacle(const DiagnosticsResults& results);

Line linkLine(const std::string& label, const DiagnosticsResults& results);

Line prbsLine(const std::string& label, const DiagnosticsResults& results, unsigned int seconds);

/// A line for each status word of the path.
std::vector<Line> errorLines(const PCIeDiagnostics& diagnostics, const DiagnosticsResults& results);

/// One line for all errors of the path.
Line errorSummary(const std::string& label, const PCIeDiagnostics& diagnostics,
                  const DiagnosticsResults& results);

/// @param result  what the text output says
Json portJson(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port,
              const DiagnosticsResults& results, const std::string& result);
