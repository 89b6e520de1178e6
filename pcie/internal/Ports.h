#pragma once

#include <cstddef>
#include <cstdint>

#include "pcie/DeviceIds.h"
#include "pcie/DiagnosticMaskRegs.h"
#include "pcie/PCIeDiagnostics.h"
#include "pcie/PCIeDownstreamPorts.h"

/// Device number of each port on its bus.
constexpr std::uint32_t deviceNumbers[] = {1, 5, 7, 9, 1, 5};

/// The ports of the main switch, which are on this bus.
constexpr PCIeDownstreamPorts mainPorts[] = {DownstreamPort1, DownstreamPort5, DownstreamPort7,
                                             DownstreamPort9};
constexpr int mainPortBus = 2;

/// Columns of DiagnosticMaskRegs.
enum class PortMask { analogLoopback, prbsSync, prbsEnable, prbsPortSelect };

/// A port's entry in a table; zero or null for a value that is no port.
template <typename Entry, std::size_t size>
Entry portEntry(const Entry (&table)[size], PCIeDownstreamPorts port) {
  return port < size ? table[port] : Entry{};
}

/// A port's entry in DiagnosticMaskRegs; 0, no bit, for a value that is no port.
std::uint32_t portMask(PortMask column, PCIeDownstreamPorts port);

/// The upstream port of the switch that owns the port; null when either is not resolved.
pci_device* upstreamPortOf(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port);

/// Function 0 of a device in PCI domain 0; null when there is none. Needs an initialised PCI
/// system.
pci_device* findDevice(int bus, std::uint32_t device);

DeviceIds idsOf(const pci_device* device);
