#pragma once

#include <optional>
#include <string>

#include "bist/Report.h"
#include "pcie/PCIeDownstreamPorts.h"

/// The subjects that talvero-bist reports on. Each function does its tests through the library's
/// public classes when it is called.

/// Identity of the board, its strap lines and the boards attached to it.
Section boardSection();

/// A downstream port as the command line names it.
struct PortChoice {
  PCIeDownstreamPorts port = DownstreamPort1;
  unsigned int shimModule = 0;  ///< module whose shim switch has the port; ports 4 and 5 only
};

/// The ports' names, which are those of their enumerators.
const char* portName(PCIeDownstreamPorts port);

/// Presence, controller, power and link of the six slots.
Section slotsSection();

/// Turns each module that has a power controller off and on, and leaves it as it was.
Section powerCycleSection();

/// Turns a slot's module on or off and says what it reads then.
Section powerSection(int slot, bool on);

/// The I2C buses and the expander of a module.
Section topologySection(unsigned int module);

/// Why the link of one of the main switch's ports need not be up: its slot is empty or off. Nothing
/// when it has to be.
std::optional<std::string> reasonForNoLink(PCIeDownstreamPorts port);

/// Links, errors and PRBS result of the main switch's ports, those without a link for a good reason
/// excepted.
Section pcieSection();

/// Whether a port's link is up, watched for a time.
Section linkSection(PortChoice choice, unsigned int seconds, bool clear);

/// The errors that a port's path latches in a time.
Section errorsSection(PortChoice choice, unsigned int seconds);

/// PRBS loopback test of a port.
Section prbsSection(PortChoice choice, unsigned int seconds);

/// The shim switch of a module.
Section shimSection(unsigned int module);

/// Sets a transmitter or loopback setting of a port and reads it back.
enum class TransmitterSetting { driveLevel, postCursor, quiet, analogLoopback };
Section transmitterSection(PortChoice choice, TransmitterSetting setting, unsigned int value);
