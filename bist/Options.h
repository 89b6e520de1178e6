// SPDX-License-Identifier: MIT
#pragma once

#include <CLI/CLI.hpp>

#include "bist/Ports.h"
#include "bist/Report.h"
#include "bist/Tests.h"
#include "pcie/PCIeDiagnostics.h"

/// Options that several commands have, and what they may say.

/// The downstream port PORT and, for one on a shim switch, --module.
struct PortOption {
  PCIeDownstreamPorts port = DownstreamPort1;
  unsigned int shimModule = 0;  ///< module whose shim switch has the port; ports 4 and 5 only

  /// A call that names port 4 or 5 without a module is a wrong one.
  void addTo(CLI::App& command, bool required = true);

  /// Sets up the shim switch that has the port, if it is on one.
  void reach(PCIeDiagnostics& diagnostics) const;

  /// Reaches the port and watches its link for so long.
  DiagnosticsResults watch(Report& report, PCIeDiagnostics& diagnostics, unsigned int seconds,
                           bool clearErrors) const;

  /// The slot that the port leads to; that of its module for one on a shim switch.
  int slot() const;

  std::string title() const;

  /// The name of a test of it.
  std::string test(const std::string& what) const { return portTest(port, slot(), what); }

  Subject subject() const { return {"port", static_cast<int>(port)}; }
};

/// --tests, --slots, --ports, --seconds, --power-cycle and --expect.
void addChoice(CLI::App& command, Choice& choice);

/// --seconds, 0 to 86400.
CLI::Option* addSeconds(CLI::App& command, unsigned int& seconds, const char* help);

/// Takes 0 to `largest`, in decimal digits.
CLI::Validator wholeNumber(unsigned int largest);

/// Whole numbers from the first to the last.
struct Range {
  int first;
  int last;
};

/// An option that takes A-B or A, of 0 to `largest`. Unless it is given, `range` stays.
void addRange(CLI::App& command, const char* option, Range& range, unsigned int largest,
              const char* help);

/// Makes true of "on" and false of "off".
CLI::Validator onOff();
