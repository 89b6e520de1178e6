// SPDX-License-Identifier: MIT
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "pcie/DeviceIds.h"
#include "pcie/DiagnosticMaskRegs.h"
#include "pcie/PCIeDiagnostics.h"
#include "pcie/PCIeDownstreamPorts.h"

/// The main switch is the backplane's, a shim switch is on a module.
enum class Switch { main, shim };

/// What is special to a port, besides its row of DiagnosticMaskRegs. The bits are in registers of
/// its switch.
struct Port {
  PCIeDownstreamPorts value;
  Switch owner;
  std::optional<unsigned int> module;  ///< module that a port of the main switch leads to
  std::uint32_t device;                ///< device number on its bus
  std::uint32_t linkBit;               ///< in switchRegister::portLinks
  std::uint32_t loopbackMasterBit;     ///< in switchRegister::loopbackMaster
  std::uint32_t quietTransmitBits;     ///< in switchRegister::quietTransmit
};

/// Indexed by port. The rows are checked when Ports.cpp is compiled.
constexpr Port ports[] = {
    {DownstreamPort1, Switch::main, 0, 1, 0x100, 0x00000001, 0x00010101},
    {DownstreamPort5, Switch::main, 3, 5, 0x200, 0x00010000, 0x00040404},
    {DownstreamPort7, Switch::main, 2, 7, 0x400, 0x00001000, 0x00080808},
    {DownstreamPort9, Switch::main, 1, 9, 0x800, 0x00000100, 0x00101010},
    {ShimPort1, Switch::shim, std::nullopt, 1, 0x100, 0x00000001, 0x00010101},
    {ShimPort5, Switch::shim, std::nullopt, 5, 0x200, 0x00000100, 0x00040404},
};

constexpr std::size_t portCount(Switch owner) {
  std::size_t count = 0;
  for (const Port& port : ports) {
    count += port.owner == owner ? 1 : 0;
  }
  return count;
}

/// The rows of a switch's ports, in their order.
template <Switch owner>
constexpr auto portsOf() {
  std::array<Port, portCount(owner)> found{};
  std::size_t count = 0;
  for (const Port& port : ports) {
    if (port.owner == owner) {
      found[count++] = port;
    }
  }
  return found;
}

constexpr auto mainPorts = portsOf<Switch::main>();
constexpr auto shimPorts = portsOf<Switch::shim>();

/// The ports of the main switch are on this bus.
constexpr int mainPortBus = 2;

/// Columns of DiagnosticMaskRegs.
enum class PortMask { analogLoopback, prbsSync, prbsEnable, prbsPortSelect };

constexpr bool isOneBit(std::uint32_t mask) { return mask != 0 && (mask & (mask - 1)) == 0; }

/// Whether a table of rows by port holds a pair of ports of one switch whose rows clash.
template <typename Row, std::size_t size>
constexpr bool anyClash(const Row (&table)[size], bool (*clash)(const Row&, const Row&)) {
  for (const Port& one : ports) {
    for (const Port& other : ports) {
      if (one.owner == other.owner && one.value != other.value &&
          clash(table[one.value], table[other.value])) {
        return true;
      }
    }
  }
  return false;
}

/// A port's entry in a table; zero or null for a value that is no port.
template <typename Entry, std::size_t size>
Entry portEntry(const Entry (&table)[size], PCIeDownstreamPorts port) {
  return port < size ? table[port] : Entry{};
}

/// A port's row; one without any bit for a value that is no port.
Port rowOf(PCIeDownstreamPorts port);

/// A port's entry in DiagnosticMaskRegs; 0, no bit, for a value that is no port.
std::uint32_t portMask(PortMask column, PCIeDownstreamPorts port);

// libpciaccess has one list of devices for the whole process, and no lock: these take one.

/// Initialises libpciaccess, which gives it a new list; false when it cannot be.
bool initialisePci();

/// As pci_device_get_bridge_buses.
int bridgeBuses(pci_device* bridge, int& primary, int& secondary, int& subordinate);

/// The upstream port of the switch that owns the port; null when either is not resolved.
pci_device* upstreamPortOf(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port);

/// Function 0 of a device in PCI domain 0; null when there is none. Needs an initialised PCI
/// system.
pci_device* findDevice(int bus, std::uint32_t device);

DeviceIds idsOf(const pci_device* device);
