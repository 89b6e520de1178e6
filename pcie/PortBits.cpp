// SPDX-License-Identifier: MIT
#include "pcie/internal/ConfigSpace.h"
#include "pcie/internal/Console.h"
#include "pcie/internal/Ports.h"
#include "pcie/internal/Registers.h"

namespace {

void printPort(PCIeDownstreamPorts port) { printLine(std::cout, "port: " + std::to_string(port)); }

}  // namespace

unsigned int PCIeDiagnostics::getDevicePortBits(PCIeDownstreamPorts port, unsigned int reg,
                                                unsigned int mask, unsigned char shift) {
  pci_device* const upstream = upstreamPortOf(*this, port);
  if (upstream == nullptr) {
    return 0;
  }
  const std::uint32_t field = readConfig32(upstream, reg) & mask;
  return shift < 32 ? field >> shift : 0;
}

unsigned int PCIeDiagnostics::setDevicePortBits(PCIeDownstreamPorts port, unsigned int reg,
                                                unsigned int bits, unsigned int keepMask) {
  pci_device* const upstream = upstreamPortOf(*this, port);
  if (upstream == nullptr) {
    return 0;
  }
  printPort(port);
  const std::uint32_t written = updateConfig32(upstream, reg, keepMask, bits);
  printHexLine("address: ", reg);
  printHexLine("write: ", bits);
  return written;
}

unsigned int PCIeDiagnostics::clearDevicePortBits(PCIeDownstreamPorts port, unsigned int reg,
                                                  unsigned int bits) {
  pci_device* const upstream = upstreamPortOf(*this, port);
  if (upstream == nullptr) {
    return 0;
  }
  printPort(port);
  return updateConfig32(upstream, reg, ~bits, 0);
}

bool PCIeDiagnostics::testDevicePortBits(PCIeDownstreamPorts port, unsigned int reg,
                                         unsigned int bits) {
  pci_device* const upstream = upstreamPortOf(*this, port);
  if (upstream == nullptr) {
    return false;
  }
  printPort(port);
  const std::uint32_t value = readConfig32(upstream, reg);
  printHexLine("portAddress: ", reg);
  printHexLine("bits: ", bits);
  printHexLine("reg: ", value);
  return (value & bits) != 0;
}

void PCIeDiagnostics::retrainLink(PCIeDownstreamPorts port) {
  pci_device* const device = portEntry(downstreamPorts, port);
  if (device != nullptr) {
    setConfigBits32(device, portRegister::linkControlAndStatus, PCI_EXP_LNKCTL_RL);
  }
}
