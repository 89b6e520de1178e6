// SPDX-License-Identifier: MIT
#pragma once

#include <vector>

#include "bist/Report.h"
#include "pcie/PCIeDiagnostics.h"

/// How what a command switches is undone, by whatever process: see Report::willSwitch.

/// Registers of a port's switch that the PRBS test changes.
Json undoOfPrbs(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, int shimModule);

/// Fields of registers of a port's switch, which get the values back that they have now.
struct Field {
  unsigned int offset;
  unsigned int mask;
};
constexpr Field driveLevelField = {0xB98, 0xF};
constexpr Field postCursorField = {0xBA8, 0xF};
Json undoOfFields(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, int shimModule,
                  const std::vector<Field>& fields);

/// The power and clock of a module.
Json undoOfPower(int slot, bool wasOn);

/// A file that is there for a while only.
Json undoOfFile(const std::string& name);

/// Gives fields of registers their values back where those have changed.
void putBack(PCIeDiagnostics& diagnostics, const Json& fields);

/// Undoes it, with library objects of its own.
void undo(const Json& switched);

/// What has been undone, in words.
std::string wordsOf(const Json& switched);
