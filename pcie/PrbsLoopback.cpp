// SPDX-License-Identifier: MIT
#include <unistd.h>

#include "pcie/internal/Console.h"
#include "pcie/internal/Ports.h"
#include "pcie/internal/Registers.h"

namespace {

// Microseconds that the switch gets to act on a control bit.
constexpr useconds_t controlTime = 1000;

}  // namespace

bool PCIeDiagnostics::setLoopbackMasterControl(PCIeDownstreamPorts port, bool enable) {
  const std::uint32_t enableBit = rowOf(port).loopbackMasterBit;
  const std::uint32_t statusBit = enableBit << loopbackStatusShift;
  if (enable) {
    setDevicePortBits(port, switchRegister::loopbackMaster, enableBit, keepAll);
  } else {
    clearDevicePortBits(port, switchRegister::loopbackMaster, enableBit);
  }
  usleep(controlTime);
  // The status bit is active low.
  return testDevicePortBits(port, switchRegister::loopbackMaster, statusBit) != enable;
}

void PCIeDiagnostics::setPRBSMode(PCIeDownstreamPorts port, bool enable) {
  const std::uint32_t bits = enable ? portMask(PortMask::prbsEnable, port) : 0;
  setDevicePortBits(port, switchRegister::prbsEnable, bits, ~prbsEnableBits);
}

void PCIeDiagnostics::configurePRBSDiagnosicRegister(PCIeDownstreamPorts port) {
  setDevicePortBits(port, switchRegister::prbsDiagnostic, portMask(PortMask::prbsPortSelect, port),
                    ~prbsPortSelect);
}

void PCIeDiagnostics::setupPRBSLoopbackTest(PCIeDownstreamPorts port) {
  configurePRBSDiagnosicRegister(port);
  usleep(controlTime);
  if (!setLoopbackMasterControl(port, true)) {
    printLine(std::cerr, "couldn't set up looback master control");
  }
  usleep(controlTime);
  setPRBSMode(port, false);
  usleep(controlTime);
  setPRBSMode(port, true);
}

void PCIeDiagnostics::tearDownPRBSLoopbackTest(PCIeDownstreamPorts port) {
  setLoopbackMasterControl(port, false);
  setPRBSMode(port, false);
}

bool PCIeDiagnostics::checkForPRBSSync(PCIeDownstreamPorts port) {
  return testDevicePortBits(port, switchRegister::analogLoopbackAndPrbsSync,
                            portMask(PortMask::prbsSync, port));
}

unsigned int PCIeDiagnostics::readPRBSErrorCounter(PCIeDownstreamPorts port) {
  if (!testDevicePortBits(port, switchRegister::prbsDiagnostic, prbsCounterValid)) {
    return 0;
  }
  return getDevicePortBits(port, switchRegister::prbsDiagnostic, prbsCounter, prbsCounterShift);
}
