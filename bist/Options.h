// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/CLI.hpp>

#include "pcie/PCIeDiagnostics.h"

/// Options that several commands have.

/// The downstream port PORT and, for one on a shim switch, --module.
struct PortOption {
  PCIeDownstreamPorts port = DownstreamPort1;
  unsigned int shimModule = 0;  ///< module whose shim switch has the port; ports 4 and 5 only

  /// A call that names port 4 or 5 without a module is a wrong one.
  void addTo(CLI::App& command);

  /// Sets up the shim switch that has the port, if it is on one.
  void reach(PCIeDiagnostics& diagnostics) const;
};

/// --seconds, 0 to 86400.
CLI::Option* addSeconds(CLI::App& command, unsigned int& seconds, const char* help);

/// Makes true of "on" and false of "off".
CLI::CheckedTransformer onOff();
