// SPDX-License-Identifier: MIT
#include <cerrno>
#include <ctime>

#include "pcie/internal/ConfigSpace.h"
#include "pcie/internal/Console.h"
#include "pcie/internal/ErrorReporting.h"
#include "pcie/internal/Ports.h"
#include "pcie/internal/Registers.h"

namespace {

constexpr unsigned long livePeriod = 100;  // milliseconds
constexpr std::uint32_t liveChecksPerSecond = 10;
constexpr unsigned long pollPeriod = 500;  // milliseconds
constexpr std::uint32_t pollsPerSecond = 2;

void readRootPort(pci_device* root, DiagnosticsResults& results) {
  results.rootLinkStatus = readConfig16(root, rootRegister::linkStatus);
  results.rootLinkOk = (results.rootLinkStatus & rootLinkMask) == rootLinkExpected;
  results.rootLinkFault = results.rootLinkOk ? 0 : 1;
  results.rootDeviceStatus = readConfig16(root, rootRegister::deviceStatus) & errorsDetected;
  results.rootUncorrectableStatus = readConfig32(root, rootRegister::uncorrectableStatus);
  results.rootCorrectableStatus =
      readConfig32(root, rootRegister::correctableStatus) & rootCorrectableErrors;
}

void readUpstreamPort(pci_device* upstream, std::uint32_t linkBit, DiagnosticsResults& results) {
  results.upstreamUncorrectableStatus =
      readConfig32(upstream, portRegister::uncorrectableStatus) & uncorrectableErrors;
  results.upstreamCorrectableStatus =
      readConfig32(upstream, portRegister::correctableStatus) & correctableErrors;
  // A snapshot reads these on both ports, though only the downstream port's values are of interest.
  readConfig32(upstream, portRegister::register1E8);
  readConfig32(upstream, portRegister::register1EC);
  results.downstreamLinkUp = (readConfig32(upstream, switchRegister::portLinks) & linkBit) != 0;
}

void readDownstreamPort(pci_device* device, DiagnosticsResults& results) {
  results.portDataLinkActive =
      (readConfig32(device, portRegister::linkControlAndStatus) & portDataLinkActive) != 0;
  results.portUncorrectableStatus =
      readConfig32(device, portRegister::uncorrectableStatus) & uncorrectableErrors;
  results.portCorrectableStatus =
      readConfig32(device, portRegister::correctableStatus) & correctableErrors;
  results.portRegister1E8 = readConfig32(device, portRegister::register1E8);
  results.portRegister1EC = readConfig32(device, portRegister::register1EC);
}

void readPrbs(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, DiagnosticsResults& results) {
  results.prbsSync = diagnostics.checkForPRBSSync(port);
  results.prbsErrors = diagnostics.readPRBSErrorCounter(port);
  if (!results.prbsSync) {
    printLine(std::cerr, "prbsSync failed");
  }
  if (results.prbsErrors != 0) {
    printLine(std::cerr, "prbsErrors: " + std::to_string(results.prbsErrors));
  }
}

void copyFlagsAndIds(const PCIeDiagnostics& diagnostics, bool upstreamFound, DeviceIds upstreamIds,
                     DiagnosticsResults& results) {
  results.pciSystemReady = diagnostics.pciSystemReady;
  results.rootPortFound = diagnostics.rootPortFound;
  results.upstreamFound = upstreamFound;
  results.rootPortIds = diagnostics.rootPortIds;
  results.upstreamIds = upstreamIds;
}

bool passing(const DiagnosticsResults& results) {
  return results.rootLinkOk && results.prbsSync && results.prbsErrors == 0;
}

}  // namespace

DiagnosticsResults PCIeDiagnostics::getDiagnosticsResults(PCIeDownstreamPorts port, bool prbs) {
  DiagnosticsResults results;
  if (rootPort != nullptr) {
    readRootPort(rootPort, results);
  }
  pci_device* const device = portEntry(downstreamPorts, port);
  if (device == nullptr) {
    return results;
  }
  pci_device* const upstream = upstreamPortOf(*this, port);
  if (upstream != nullptr) {
    readUpstreamPort(upstream, rowOf(port).linkBit, results);
  }
  readDownstreamPort(device, results);
  if (prbs) {
    readPrbs(*this, port, results);
  }
  results.portIds = portEntry(downstreamIds, port);
  return results;
}

void PCIeDiagnostics::clearDownstreamResults(PCIeDownstreamPorts port) {
  if (rootPort != nullptr) {
    writeBackConfig16(rootPort, rootRegister::deviceStatus);
    clearRootErrorStatus(rootPort);
  }
  for (pci_device* const device : {upstreamPortOf(*this, port), portEntry(downstreamPorts, port)}) {
    if (device != nullptr) {
      clearBridgeErrorStatus(device);
    }
  }
}

int PCIeDiagnostics::wait_ms(unsigned long ms) {
  timespec remaining = {};
  remaining.tv_sec = static_cast<std::int32_t>(ms / 1000);
  remaining.tv_nsec = static_cast<long>(ms % 1000 * 1000000);
  while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
  }
  return 0;
}

DiagnosticsResults PCIeDiagnostics::checkLiveDownstreamPort(PCIeDownstreamPorts port,
                                                            unsigned int seconds, bool clearFirst) {
  const bool shim = rowOf(port).owner == Switch::shim;
  const bool upstreamFound = shim ? shimUpstreamFound : switchUpstreamFound;
  DiagnosticsResults results;
  if (pciSystemReady) {
    if (clearFirst) {
      clearDownstreamResults(port);
    }
    results = getDiagnosticsResults(port, false);
    if (results.rootLinkOk && rootPortFound && upstreamFound) {
      const std::uint32_t checks = seconds * liveChecksPerSecond;
      std::uint32_t done = 0;
      do {
        wait_ms(livePeriod);
        results = getDiagnosticsResults(port, false);
      } while (++done < checks);
    }
  }
  copyFlagsAndIds(*this, upstreamFound, shim ? shimUpstreamIds : switchUpstreamIds, results);
  return results;
}

bool PCIeDiagnostics::isLinkUp(PCIeDownstreamPorts port) {
  const DiagnosticsResults results = checkLiveDownstreamPort(port, 0, false);
  return pciSystemReady && rootPortFound && switchUpstreamFound && results.downstreamLinkUp;
}

DiagnosticsResults PCIeDiagnostics::testDownstreamPort(PCIeDownstreamPorts port,
                                                       unsigned int seconds) {
  DiagnosticsResults results;
  if (pciSystemReady) {
    setupPRBSLoopbackTest(port);
    results = getDiagnosticsResults(port, true);
    if (results.rootLinkOk && rootPortFound && switchUpstreamFound && results.prbsSync) {
      const std::uint32_t polls = seconds * pollsPerSecond;
      std::uint32_t done = 0;
      do {
        wait_ms(pollPeriod);
        results = getDiagnosticsResults(port, true);
      } while (passing(results) && ++done < polls);
    }
    tearDownPRBSLoopbackTest(port);
  }
  copyFlagsAndIds(*this, switchUpstreamFound, switchUpstreamIds, results);
  return results;
}
