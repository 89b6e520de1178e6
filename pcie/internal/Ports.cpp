// SPDX-License-Identifier: MIT
#include "pcie/internal/Ports.h"

#include <pciaccess.h>

#include <iterator>
#include <type_traits>

#include "pcie/internal/Turn.h"

namespace {

// Of an enumerator that is missing here the compiler warns.
constexpr bool isPort(PCIeDownstreamPorts port) {
  switch (port) {
    case DownstreamPort1:
    case DownstreamPort5:
    case DownstreamPort7:
    case DownstreamPort9:
    case ShimPort1:
    case ShimPort5:
      return true;
  }
  return false;
}

constexpr bool isRowOf(const Port& row, std::size_t port) {
  return row.value == port && isPort(row.value) && isOneBit(row.linkBit) &&
         isOneBit(row.loopbackMasterBit) && row.quietTransmitBits != 0;
}

constexpr bool everyRowIsAPort() {
  for (std::size_t port = 0; port < std::size(ports); ++port) {
    if (!isRowOf(ports[port], port)) {
      return false;
    }
  }
  return true;
}

constexpr bool clash(const Port& one, const Port& other) {
  return one.device == other.device || (one.linkBit & other.linkBit) != 0 ||
         (one.loopbackMasterBit & other.loopbackMasterBit) != 0 ||
         (one.quietTransmitBits & other.quietTransmitBits) != 0;
}

static_assert(everyRowIsAPort());
static_assert(!isPort(static_cast<PCIeDownstreamPorts>(std::size(ports))), "a port has no row");
static_assert(!anyClash(ports, clash));
static_assert(std::size(ports) == std::extent_v<decltype(DiagnosticMaskRegs)>);
static_assert(std::size(ports) == std::extent_v<decltype(PCIeDiagnostics::downstreamPorts)>);
static_assert(std::size(ports) == std::extent_v<decltype(PCIeDiagnostics::downstreamIds)>);

}  // namespace

Port rowOf(PCIeDownstreamPorts port) { return portEntry(ports, port); }

std::uint32_t portMask(PortMask column, PCIeDownstreamPorts port) {
  return port < std::size(DiagnosticMaskRegs) ? DiagnosticMaskRegs[port][static_cast<int>(column)]
                                              : 0;
}

bool initialisePci() {
  const Turn turn;
  return pci_system_init() == 0;
}

int bridgeBuses(pci_device* bridge, int& primary, int& secondary, int& subordinate) {
  const Turn turn;
  return pci_device_get_bridge_buses(bridge, &primary, &secondary, &subordinate);
}

pci_device* upstreamPortOf(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  pci_device* const device = portEntry(diagnostics.downstreamPorts, port);
  const Turn turn;
  return device == nullptr ? nullptr : pci_device_get_parent_bridge(device);
}

pci_device* findDevice(int bus, std::uint32_t device) {
  // libpciaccess gives a bridge that has no secondary bus the number -1, and takes that number for
  // "any bus" in a look-up.
  const Turn turn;
  return bus < 0 ? nullptr : pci_device_find_by_slot(0, static_cast<std::uint32_t>(bus), device, 0);
}

DeviceIds idsOf(const pci_device* device) { return {device->vendor_id, device->device_id}; }
