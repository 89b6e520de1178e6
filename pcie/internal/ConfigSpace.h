// SPDX-License-Identifier: MIT
#pragma once

#include <pciaccess.h>

#include <cstdint>

#include "pcie/internal/Turn.h"

// Configuration-space access. A failed read counts as 0; a failed write is lost.

inline std::uint16_t readConfig16(pci_device* device, std::uint32_t offset) {
  const Turn turn;
  std::uint16_t value = 0;
  pci_device_cfg_read_u16(device, &value, offset);
  return value;
}

inline std::uint32_t readConfig32(pci_device* device, std::uint32_t offset) {
  const Turn turn;
  std::uint32_t value = 0;
  pci_device_cfg_read_u32(device, &value, offset);
  return value;
}

inline void writeConfig16(pci_device* device, std::uint16_t value, std::uint32_t offset) {
  const Turn turn;
  pci_device_cfg_write_u16(device, value, offset);
}

inline void writeConfig32(pci_device* device, std::uint32_t value, std::uint32_t offset) {
  const Turn turn;
  pci_device_cfg_write_u32(device, value, offset);
}

inline void setConfigBits16(pci_device* device, std::uint32_t offset, std::uint16_t bits) {
  const std::uint16_t value = readConfig16(device, offset);
  writeConfig16(device, static_cast<std::uint16_t>(value | bits), offset);
}

/// Keeps the bits of `keepMask`, clears the others, then sets `bits`. Returns the value written.
inline std::uint32_t updateConfig32(pci_device* device, std::uint32_t offset,
                                    std::uint32_t keepMask, std::uint32_t bits) {
  const std::uint32_t value = (readConfig32(device, offset) & keepMask) | bits;
  writeConfig32(device, value, offset);
  return value;
}

inline void setConfigBits32(pci_device* device, std::uint32_t offset, std::uint32_t bits) {
  updateConfig32(device, offset, ~std::uint32_t{0}, bits);
}

// Writing back the bits read clears a write-one-to-clear register.

inline void writeBackConfig16(pci_device* device, std::uint32_t offset) {
  setConfigBits16(device, offset, 0);
}

inline void writeBackConfig32(pci_device* device, std::uint32_t offset) {
  setConfigBits32(device, offset, 0);
}
