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

/// Reads or writes `size` bytes, 1 to 4, of the configuration space of the device at an address of
/// domain 0, function 0. Results are 0 or an errno value.
int read(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
         std::uint32_t size, std::uint32_t& value);
int write(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
          std::uint32_t size, std::uint32_t value);

}  // namespace simulator::pci
