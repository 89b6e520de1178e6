// SPDX-License-Identifier: MIT
#include <pciaccess.h>

#include <optional>

#include "pcie/internal/Console.h"
#include "pcie/internal/ErrorReporting.h"
#include "pcie/internal/Ports.h"

namespace {

/// The port of the main switch that leads to a module; null when there is none.
const Port* portOfModule(unsigned int module) {
  for (const Port& port : mainPorts) {
    if (port.module == module) {
      return &port;
    }
  }
  return nullptr;
}

void reportMissing(const std::string& device) {
  printLine(std::cerr, "Could not find device: " + device);
}

/// Prints a bridge's buses, each name preceded by `prefix`, and returns the secondary bus. Prints
/// that the device is no bridge and returns nothing when it is none.
std::optional<int> reportBuses(pci_device* bridge, const std::string& prefix) {
  // For some kinds of bridge libpciaccess succeeds and tells nothing: -1 is its own "no such bus".
  int primary = -1;
  int secondary = -1;
  int subordinate = -1;
  if (bridgeBuses(bridge, primary, secondary, subordinate) != 0) {
    printLine(std::cerr, "Device was not a bridge");
    return std::nullopt;
  }
  printLine(std::cout, prefix + "primary: " + std::to_string(primary) + " " + prefix +
                           "secondary: " + std::to_string(secondary) + " " + prefix +
                           "subordinate: " + std::to_string(subordinate));
  return secondary;
}

void forgetShimSwitch(PCIeDiagnostics& diagnostics) {
  diagnostics.shimUpstreamPort = nullptr;
  diagnostics.shimUpstreamFound = false;
  diagnostics.shimUpstreamIds = {};
  for (const Port& port : shimPorts) {
    diagnostics.downstreamPorts[port.value] = nullptr;
    diagnostics.downstreamIds[port.value] = {};
  }
}

/// Walks from the module's port to the shim switch and stores its three devices. Returns whether
/// all were found and are bridges.
bool findShimSwitch(PCIeDiagnostics& diagnostics, std::uint32_t moduleDevice) {
  pci_device* const modulePort = findDevice(mainPortBus, moduleDevice);
  if (modulePort == nullptr) {
    reportMissing(std::to_string(moduleDevice));
    return false;
  }
  const std::optional<int> moduleBus = reportBuses(modulePort, "");
  if (!moduleBus) {
    return false;
  }
  diagnostics.shimUpstreamPort = findDevice(*moduleBus, 0);
  if (diagnostics.shimUpstreamPort == nullptr) {
    reportMissing(std::to_string(*moduleBus));
    return false;
  }
  const std::optional<int> shimBus = reportBuses(diagnostics.shimUpstreamPort, "shim_");
  if (!shimBus) {
    return false;
  }
  for (const Port& port : shimPorts) {
    diagnostics.downstreamPorts[port.value] = findDevice(*shimBus, port.device);
  }
  for (const Port& port : shimPorts) {
    if (diagnostics.downstreamPorts[port.value] == nullptr) {
      reportMissing(std::to_string(*shimBus) + "." + std::to_string(port.device));
      return false;
    }
  }
  for (const Port& port : shimPorts) {
    if (!reportBuses(diagnostics.downstreamPorts[port.value], "shim_")) {
      return false;
    }
  }
  return true;
}

}  // namespace

void PCIeDiagnostics::setupShimSwitch(unsigned int module) {
  const Port* const modulePort = portOfModule(module);
  if (modulePort == nullptr || !pciSystemReady) {
    return;
  }
  forgetShimSwitch(*this);
  printLine(std::cout, "Module Downstream: " + std::to_string(modulePort->device));
  if (!findShimSwitch(*this, modulePort->device)) {
    return;
  }
  shimUpstreamIds = idsOf(shimUpstreamPort);
  for (const Port& port : shimPorts) {
    downstreamIds[port.value] = idsOf(downstreamPorts[port.value]);
  }
  shimUpstreamFound = true;
  enableBridgeErrorReporting(shimUpstreamPort);
  for (const Port& port : shimPorts) {
    enableBridgeErrorReporting(downstreamPorts[port.value]);
  }
}
