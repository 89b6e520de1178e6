#pragma once

#include <functional>

#include "pcie/PCIeDownstreamPorts.h"
#include "tools/Report.h"

/// The subjects that talvero-bist reports on. Each function does its tests through the library's
/// public classes when it is called.

/// Identity of the board, its strap lines and the boards attached to it.
report::Section boardSection();

/// A downstream port as the command line names it.
struct PortChoice {
  PCIeDownstreamPorts port = DownstreamPort1;
  unsigned int shimModule = 0;  ///< module whose shim switch has the port; ports 4 and 5 only
};

/// The ports' names, which are those of their enumerators.
const char* portName(PCIeDownstreamPorts port);

/// Links, errors and PRBS result of the main switch's ports.
report::Section pcieSection();

/// Whether a port's link is up, watched for a time.
report::Section linkSection(PortChoice choice, unsigned int seconds, bool clear);

/// The errors that a port's path latches in a time.
report::Section errorsSection(PortChoice choice, unsigned int seconds);

/// PRBS loopback test of a port.
report::Section prbsSection(PortChoice choice, unsigned int seconds);

/// The shim switch of a module.
report::Section shimSection(unsigned int module);

/// Sets a transmitter or loopback setting of a port and reads it back.
enum class TransmitterSetting { driveLevel, postCursor, quiet, analogLoopback };
report::Section transmitterSection(PortChoice choice, TransmitterSetting setting,
                                   unsigned int value);
