#pragma once

#include <cstdint>

#include "simulator/State.h"

/// The PCI Express fabric: root port, main switch with four downstream ports, and the shim switch
/// of one module with two.
namespace simulator::pci {

/// The fabric without a shim switch, everything present and in order.
void describeFabric(PciDevice (&devices)[pciPlaceCount]);

/// Puts the shim switch behind one of the main switch's ports.
void describeShim(PciDevice (&devices)[pciPlaceCount], PciPlace port);

constexpr std::uint32_t bridgeClass = 0x060400;

void setClassCode(PciDevice& device, std::uint32_t code);

/// Sets the 32-bit word at an offset, whatever a write would do to it.
void setRegister(PciDevice& device, std::uint32_t offset, std::uint32_t value);

/// Vendor and device ID; each device has its own.
constexpr std::uint16_t vendorId = 0x7A1E;
std::uint16_t deviceId(PciPlace place);

/// The device at an address of domain 0, function 0; null when there is none.
PciDevice* find(State& state, std::uint32_t bus, std::uint32_t device);

/// Reads or writes `size` bytes, 1 to 4, of a device's configuration space. Results are 0 or an
/// errno value.
int read(State& state, PciDevice& device, std::uint32_t offset, std::uint32_t size,
         std::uint32_t& value);
int write(State& state, PciDevice& device, std::uint32_t offset, std::uint32_t size,
          std::uint32_t value);

}  // namespace simulator::pci
