#include <pciaccess.h>

#include <iterator>
#include <optional>

#include "pcie/internal/Console.h"
#include "pcie/internal/ErrorReporting.h"
#include "pcie/internal/Ports.h"

namespace {

constexpr PCIeDownstreamPorts modulePorts[] = {DownstreamPort1, DownstreamPort9, DownstreamPort7,
                                               DownstreamPort5};

constexpr PCIeDownstreamPorts shimPorts[] = {ShimPort1, ShimPort5};

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
  if (pci_device_get_bridge_buses(bridge, &primary, &secondary, &subordinate) != 0) {
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
  for (const PCIeDownstreamPorts port : shimPorts) {
    diagnostics.downstreamPorts[port] = nullptr;
    diagnostics.downstreamIds[port] = {};
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
  for (const PCIeDownstreamPorts port : shimPorts) {
    diagnostics.downstreamPorts[port] = findDevice(*shimBus, deviceNumbers[port]);
  }
  for (const PCIeDownstreamPorts port : shimPorts) {
    if (diagnostics.downstreamPorts[port] == nullptr) {
      reportMissing(std::to_string(*shimBus) + "." + std::to_string(deviceNumbers[port]));
      return false;
    }
  }
  for (const PCIeDownstreamPorts port : shimPorts) {
    if (!reportBuses(diagnostics.downstreamPorts[port], "shim_")) {
      return false;
    }
  }
  return true;
}

}  // namespace

void PCIeDiagnostics::setupShimSwitch(unsigned int module) {
  if (module >= std::size(modulePorts) || !pciSystemReady) {
    return;
  }
  forgetShimSwitch(*this);
  const std::uint32_t moduleDevice = deviceNumbers[modulePorts[module]];
  printLine(std::cout, "Module Downstream: " + std::to_string(moduleDevice));
  if (!findShimSwitch(*this, moduleDevice)) {
    return;
  }
  shimUpstreamIds = idsOf(shimUpstreamPort);
  for (const PCIeDownstreamPorts port : shimPorts) {
    downstreamIds[port] = idsOf(downstreamPorts[port]);
  }
  shimUpstreamFound = true;
  enableBridgeErrorReporting(shimUpstreamPort);
  for (const PCIeDownstreamPorts port : shimPorts) {
    enableBridgeErrorReporting(downstreamPorts[port]);
  }
}
