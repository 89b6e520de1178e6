// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <cstring>

#include "simulator/shared/State.h"

/// Configuration spaces of the PCI Express fabric: root port, main switch with four downstream
/// ports, and the shim switch of one module with two.
///
/// What the registers are and do is stated here once more, as the hardware's own word: the
/// library's statement is what is tested against it, and so the two share nothing.
namespace simulator::pci {

template <typename Value>
Value load(const PciDevice& device, std::uint32_t offset) {
  Value value{};
  std::memcpy(&value, device.config + offset, sizeof value);
  return value;
}

/// Puts a value into a register, whatever a write would do to it.
template <typename Value>
void put(PciDevice& device, std::uint32_t offset, Value value) {
  std::memcpy(device.config + offset, &value, sizeof value);
}

void putBits(PciDevice& device, std::uint32_t offset, std::uint32_t mask, bool set);

bool isDownstreamPort(PciPlace place);
bool isSwitch(PciPlace place);  ///< the upstream port, which has the switch's registers

/// Fills a configuration space with what it holds after a reset, but for the numbers of its buses.
void reset(PciDevice& device, PciPlace place);

/// Where the devices have their Link Status register.
std::uint32_t linkStatusOffset(PciPlace place);

/// The bits of a 32-bit word that show what the hardware does, whatever has been put there.
std::uint32_t madeUpBits(PciPlace place, std::uint32_t word);

/// Whether the link below a root or downstream port is up.
bool linkIsUp(const State& state, PciPlace place);

/// Whether PRBS is on and the port's switch loopback master, for a downstream port.
bool prbsIsOn(const Hardware& hardware, PciPlace port);
bool isLoopbackMaster(const Hardware& hardware, PciPlace port);

/// Latches errors on a device, and tells the root port where reporting is enabled along the path.
void latch(Hardware& hardware, PciPlace place, std::uint32_t uncorrectable,
           std::uint32_t correctable);

/// Takes note of links that are lost.
void settle(State& state);

/// Reads or writes `size` bytes, 1 to 4, of the configuration space of the device at an address of
/// domain 0, function 0. Results are 0 or an errno value. A device that was there when the
/// instrument started and cannot be reached reads as all ones, and takes no writes.
int read(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
         std::uint32_t size, std::uint32_t& value);
int write(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
          std::uint32_t size, std::uint32_t value);

// A device's file below /sys/bus/pci/devices: see Attributes in Part.h.
bool owns(const std::string& path);
int open(const std::string& path, bool writing, std::string& content);
int store(const std::string& path, const std::string& text, std::size_t offset);

}  // namespace simulator::pci
