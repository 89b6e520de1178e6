// SPDX-License-Identifier: MIT
// libpciaccess: discovery is its own, over the simulated tree. Configuration space is the fabric's
// register model: these functions never call the library's own, so that no access can reach a
// device of the host.

#include <pciaccess.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>

#include "simulator/parts/Changes.h"
#include "simulator/parts/PciRegisters.h"
#include "simulator/preload/Next.h"
#include "simulator/shared/Trace.h"

namespace simulator {

namespace {

std::string addressOf(std::uint32_t domain, std::uint32_t bus, std::uint32_t device,
                      std::uint32_t function) {
  char text[40];
  std::snprintf(text, sizeof text, "%04x:%02x:%02x.%x", domain, bus, device, function);
  return text;
}

std::string addressOf(const pci_device& device) {
  return addressOf(device.domain, device.bus, device.dev, device.func);
}

std::string hex(std::uint32_t number) {
  char text[12];
  std::snprintf(text, sizeof text, "%x", number);
  return text;
}

std::string accessText(const char* name, const pci_device& device, std::uint32_t offset,
                       std::uint32_t size) {
  return std::string("pci ") + name + std::to_string(size * 8) + " " + addressOf(device) + " " +
         hex(offset);
}

/// Reads without a trace.
void readBytes(const pci_device& device, void* bytes, std::uint32_t offset, std::uint32_t size) {
  for (std::uint32_t done = 0; done < size; ++done) {
    std::uint32_t byte = 0;
    pci::read(*Locked(), device.bus, device.dev, offset + done, 1, byte);
    static_cast<std::uint8_t*>(bytes)[done] = static_cast<std::uint8_t>(byte);
  }
}

template <typename Value>
int readValue(const pci_device* device, Value* value, pciaddr_t place) {
  requireInstrument("PCI configuration space");
  const auto offset = static_cast<std::uint32_t>(std::min<pciaddr_t>(place, ~0U));
  std::uint32_t read = 0;
  const std::string text = accessText("read", *device, offset, sizeof(Value));
  int error = admit(text);
  if (error == 0) {
    error = pci::read(*Locked(), device->bus, device->dev, offset, sizeof(Value), read);
  }
  traceResult(error == 0 ? text + " " + hex(read) : text, error);
  if (error == 0) {
    *value = static_cast<Value>(read);
  } else if (offset < configSize && offset + sizeof(Value) > configSize) {
    readBytes(*device, value, offset, configSize - offset);  // the kernel's short reading
  }
  return error;
}

template <typename Value>
int writeValue(const pci_device* device, Value value, pciaddr_t place) {
  requireInstrument("PCI configuration space");
  const auto offset = static_cast<std::uint32_t>(std::min<pciaddr_t>(place, ~0U));
  const std::string text = accessText("write", *device, offset, sizeof(Value)) + " " + hex(value);
  int error = admit(text);
  if (error == 0) {
    error = pci::write(*Locked(), device->bus, device->dev, offset, sizeof(Value), value);
  }
  traceResult(text, error);
  return error;
}

}  // namespace

}  // namespace simulator

using simulator::Nested;
using simulator::next;

extern "C" {

int pci_system_init() {
  static const auto real = next(&pci_system_init, "pci_system_init");
  simulator::requireInstrument("the PCI system");
  int error = simulator::admit("pci_system_init");
  if (error == 0) {
    const Nested nested;
    error = real();
  }
  simulator::traceResult("pci_system_init", error);
  return error;
}

pci_device* pci_device_find_by_slot(std::uint32_t domain, std::uint32_t bus, std::uint32_t device,
                                    std::uint32_t function) {
  static const auto real = next(&pci_device_find_by_slot, "pci_device_find_by_slot");
  const std::string text = "pci find " + simulator::addressOf(domain, bus, device, function);
  const int error = simulator::admit(text);
  pci_device* const found = error != 0 ? nullptr : real(domain, bus, device, function);
  simulator::traceResult(text, error != 0 ? error : found == nullptr ? ENODEV : 0);
  return found;
}

int pci_device_get_bridge_buses(pci_device* device, int* primary, int* secondary,
                                int* subordinate) {
  static const auto real = next(&pci_device_get_bridge_buses, "pci_device_get_bridge_buses");
  const std::string text = "pci buses " + simulator::addressOf(*device);
  int error = simulator::admit(text);
  if (error == 0) {
    const Nested nested;
    error = real(device, primary, secondary, subordinate);
  }
  simulator::traceResult(text, error);
  return error;
}

pci_device* pci_device_get_parent_bridge(pci_device* device) {
  static const auto real = next(&pci_device_get_parent_bridge, "pci_device_get_parent_bridge");
  const Nested nested;
  return real(device);
}

int pci_device_cfg_read_u8(pci_device* device, std::uint8_t* value, pciaddr_t offset) {
  return simulator::readValue(device, value, offset);
}

int pci_device_cfg_read_u16(pci_device* device, std::uint16_t* value, pciaddr_t offset) {
  return simulator::readValue(device, value, offset);
}

int pci_device_cfg_read_u32(pci_device* device, std::uint32_t* value, pciaddr_t offset) {
  return simulator::readValue(device, value, offset);
}

int pci_device_cfg_write_u8(pci_device* device, std::uint8_t value, pciaddr_t offset) {
  return simulator::writeValue(device, value, offset);
}

int pci_device_cfg_write_u16(pci_device* device, std::uint16_t value, pciaddr_t offset) {
  return simulator::writeValue(device, value, offset);
}

int pci_device_cfg_write_u32(pci_device* device, std::uint32_t value, pciaddr_t offset) {
  return simulator::writeValue(device, value, offset);
}

int pci_device_cfg_write_bits(pci_device* device, std::uint32_t mask, std::uint32_t bits,
                              pciaddr_t offset) {
  std::uint32_t value = 0;
  const int error = simulator::readValue(device, &value, offset);
  return error != 0 ? error : simulator::writeValue(device, (value & ~mask) | bits, offset);
}

int pci_device_cfg_read(pci_device* device, void* data, pciaddr_t offset, pciaddr_t size,
                        pciaddr_t* done) {
  auto* const bytes = static_cast<std::uint8_t*>(data);
  int error = 0;
  pciaddr_t count = 0;
  for (; count < size && error == 0; count += error == 0 ? 1 : 0) {
    error = simulator::readValue(device, bytes + count, offset + count);
  }
  error = offset + count >= simulator::configSize ? 0 : error;  // its end is none
  if (done != nullptr) {
    *done = count;
  }
  return error;
}

int pci_device_cfg_write(pci_device* device, const void* data, pciaddr_t offset, pciaddr_t size,
                         pciaddr_t* done) {
  const auto* const bytes = static_cast<const std::uint8_t*>(data);
  int error = 0;
  pciaddr_t count = 0;
  for (; count < size && error == 0; count += error == 0 ? 1 : 0) {
    error = simulator::writeValue(device, bytes[count], offset + count);
  }
  if (done != nullptr) {
    *done = count;
  }
  return error;
}

}  // extern "C"
