#include "pcie/internal/Ports.h"

#include <pciaccess.h>

#include <iterator>

std::uint32_t portMask(PortMask column, PCIeDownstreamPorts port) {
  return port < std::size(DiagnosticMaskRegs) ? DiagnosticMaskRegs[port][static_cast<int>(column)]
                                              : 0;
}

pci_device* upstreamPortOf(const PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  pci_device* const device = portEntry(diagnostics.downstreamPorts, port);
  return device == nullptr ? nullptr : pci_device_get_parent_bridge(device);
}

pci_device* findDevice(int bus, std::uint32_t device) {
  // libpciaccess gives a bridge that has no secondary bus the number -1, and takes that number for
  // "any bus" in a look-up.
  return bus < 0 ? nullptr : pci_device_find_by_slot(0, static_cast<std::uint32_t>(bus), device, 0);
}

DeviceIds idsOf(const pci_device* device) { return {device->vendor_id, device->device_id}; }
