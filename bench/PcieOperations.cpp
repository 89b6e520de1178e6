// SPDX-License-Identifier: MIT
#include <pciaccess.h>

#include "bench/Growth.h"
#include "bench/Operation.h"
#include "pcie/PCIeDiagnostics.h"

namespace {

// The register accesses of the library, made bare.
void setBits16(pci_device* device, pciaddr_t offset, std::uint16_t bits) {
  std::uint16_t value = 0;
  pci_device_cfg_read_u16(device, &value, offset);
  pci_device_cfg_write_u16(device, value | bits, offset);
}

void setBits32(pci_device* device, pciaddr_t offset, std::uint32_t bits) {
  std::uint32_t value = 0;
  pci_device_cfg_read_u32(device, &value, offset);
  pci_device_cfg_write_u32(device, value | bits, offset);
}

std::uint32_t read32(pci_device* device, pciaddr_t offset) {
  std::uint32_t value = 0;
  pci_device_cfg_read_u32(device, &value, offset);
  return value;
}

void setUpBridge(pci_device* bridge) {
  setBits32(bridge, 0x04, 0x100);
  setBits32(bridge, 0x3C, 0x30000);
  setBits16(bridge, 0x70, 0xF);
  setBits32(bridge, 0xFCC, 0x100);
  pci_device_cfg_write_u32(bridge, 0x003FF030, 0xFB8);
  pci_device_cfg_write_u32(bridge, 0x000031C1, 0xFC4);
}

bool floorConstructs() {
  if (pci_system_init() != 0) {
    return false;
  }
  pci_device* const root = pci_device_find_by_slot(0, 0, 0, 0);
  pci_device* const upstream = pci_device_find_by_slot(0, 1, 0, 0);
  pci_device* ports[4];
  const std::uint32_t numbers[] = {1, 5, 7, 9};
  for (int port = 0; port < 4; ++port) {
    ports[port] = pci_device_find_by_slot(0, 2, numbers[port], 0);
  }
  setBits16(root, 0x78, 0xF);
  setBits16(root, 0x12C, 0x7);
  setBits16(root, 0x7A, 0);
  for (const pciaddr_t offset : {0x8CU, 0x130U, 0x110U, 0x104U}) {
    setBits32(root, offset, offset == 0x8C ? 0x7 : 0);
  }
  setUpBridge(upstream);
  for (pci_device* const port : ports) {
    setUpBridge(port);
  }
  return true;
}

PCIeDiagnostics& diagnostics() {
  static PCIeDiagnostics object;
  return object;
}

pci_device* port9() { return diagnostics().downstreamPorts[DownstreamPort9]; }

pci_device* upstreamPort() { return pci_device_get_parent_bridge(port9()); }

bool floorTakesSnapshot() {
  std::uint16_t word = 0;
  pci_device* const root = diagnostics().rootPort;
  pci_device_cfg_read_u16(root, &word, 0x82);
  pci_device_cfg_read_u16(root, &word, 0x7A);
  std::uint32_t sum = read32(root, 0x104) + read32(root, 0x110);
  pci_device* const upstream = upstreamPort();
  for (const pciaddr_t offset : {0xFB8U, 0xFC4U, 0x1E8U, 0x1ECU, 0x1F4U}) {
    sum += read32(upstream, offset);
  }
  for (const pciaddr_t offset : {0x78U, 0xFB8U, 0xFC4U, 0x1E8U, 0x1ECU}) {
    sum += read32(port9(), offset);
  }
  return sum != 1;
}

bool floorUpdates() {
  setBits32(upstreamPort(), 0xB98, 1);
  return true;
}

// All bits decoded into a bare buffer, and a text made of it.
template <std::size_t count>
bool floorDecodes(std::uint32_t status, const char* const (&texts)[count]) {
  char buffer[256];
  std::size_t length = 0;
  for (std::size_t bit = 0; bit < count; ++bit) {
    if ((status >> bit & 1U) == 0) {
      continue;
    }
    for (const char* text = bit == 0 ? "" : ", "; *text != '\0'; ++text) {
      buffer[length++] = *text;
    }
    for (const char* text = texts[bit]; *text != '\0'; ++text) {
      buffer[length++] = *text;
    }
  }
  return length > 0 && buffer[length - 1] != '\0';
}

constexpr const char* uncorrectable[] = {
    "Data Link",          "Surprise Down",    "Poisoned DLP",          "Flow Control",
    "Completion Timeout", "Completion Abort", "Unexpected Completion", "Receiver Overflow",
    "Malformed TLP",      "ECRC Error",       "Unsupported Request",   "ACS Violation"};
constexpr const char* correctable[] = {"Rx Errors",  "Bad TLP",        "Bad DLLP",
                                       "Replay Num", "Replay Timeout", "Advisory"};

volatile std::uint32_t allBits = ~0U;

}  // namespace

std::vector<Operation> pcieOperations() {
  return {
      {"PCIeDiagnostics()", [] { return PCIeDiagnostics().switchUpstreamFound; }, floorConstructs,
       1.02},
      {"getDiagnosticsResults(port, false)",
       [] {
         return diagnostics().getDiagnosticsResults(DownstreamPort9, false).portIds.vendorId != 0;
       },
       floorTakesSnapshot, 1.02},
      {"getDevicePortBits",
       [] { return diagnostics().getDevicePortBits(DownstreamPort9, 0xB98, 1, 0) < 2; },
       [] { return read32(upstreamPort(), 0xB98) != ~0U; }},
      {"setDevicePortBits",
       [] { return diagnostics().setDevicePortBits(DownstreamPort9, 0xB98, 1, ~0U) != 0; },
       floorUpdates, 1.07},
      {"clearDevicePortBits",
       [] { return diagnostics().clearDevicePortBits(DownstreamPort9, 0xB98, 2) != ~0U; },
       floorUpdates},
      {"testDevicePortBits",
       [] { return !diagnostics().testDevicePortBits(DownstreamPort9, 0x25C, 1); },
       [] { return (read32(upstreamPort(), 0x25C) & 1U) == 0; }, 1.15},
      {"retrainLink",
       [] {
         diagnostics().retrainLink(DownstreamPort9);
         return true;
       },
       [] {
         setBits32(port9(), 0x78, 0x20);
         return true;
       }},
      {"DecodeUncorrectableStatus(all bits)",
       [] { return diagnostics().DecodeUncorrectableStatus(allBits).size() > 100; },
       [] { return floorDecodes(allBits, uncorrectable); }, 3},
      {"DecodeCorrectableStatus(all bits)",
       [] { return diagnostics().DecodeCorrectableStatus(allBits).size() > 50; },
       [] { return floorDecodes(allBits, correctable); }, 3},
  };
}

bool constructDiagnostics() { return PCIeDiagnostics().pciSystemReady; }

bool initialiseLibpciaccess() { return pci_system_init() == 0; }
