// SPDX-License-Identifier: MIT
#include "pcie/PCIeDiagnostics.h"

#include "pcie/internal/Console.h"
#include "pcie/internal/ErrorReporting.h"
#include "pcie/internal/Ports.h"

// Construction, and what it looks for. Each other group of operations has a source of its own.

namespace {

constexpr int rootBus = 0;
constexpr int switchBus = 1;

/// Returns whether the root port and the switch's upstream port were found.
bool discoverMainSwitch(PCIeDiagnostics& diagnostics) {
  for (DeviceIds& ids : diagnostics.downstreamIds) {
    ids = {};
  }
  // libpciaccess crashes on look-ups without an initialised system.
  diagnostics.pciSystemReady = initialisePci();
  if (!diagnostics.pciSystemReady) {
    return false;
  }
  diagnostics.rootPort = findDevice(rootBus, 0);
  diagnostics.rootPortFound = diagnostics.rootPort != nullptr;
  if (!diagnostics.rootPortFound) {
    return false;
  }
  diagnostics.rootPortIds = idsOf(diagnostics.rootPort);

  diagnostics.switchUpstreamPort = findDevice(switchBus, 0);
  diagnostics.switchUpstreamFound = diagnostics.switchUpstreamPort != nullptr;
  if (!diagnostics.switchUpstreamFound) {
    return false;
  }
  diagnostics.switchUpstreamIds = idsOf(diagnostics.switchUpstreamPort);

  for (const Port& port : mainPorts) {
    pci_device* const device = findDevice(mainPortBus, port.device);
    diagnostics.downstreamPorts[port.value] = device;
    if (device == nullptr) {
      printLine(std::cerr, "could not enumerate module: " + std::to_string(port.value));
    } else {
      diagnostics.downstreamIds[port.value] = idsOf(device);
    }
  }
  return true;
}

}  // namespace

PCIeDiagnostics::PCIeDiagnostics() { setupAdvancedErrorReportingOnRootSwitch(); }

PCIeDiagnostics::~PCIeDiagnostics() = default;

int PCIeDiagnostics::setupAdvancedErrorReportingOnRootSwitch() {
  if (!discoverMainSwitch(*this)) {
    return 0;
  }
  enableRootErrorReporting(rootPort);
  enableBridgeErrorReporting(switchUpstreamPort);
  for (const Port& port : mainPorts) {
    if (downstreamPorts[port.value] != nullptr) {
      enableBridgeErrorReporting(downstreamPorts[port.value]);
    }
  }
  return 0;
}
