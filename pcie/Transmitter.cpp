// SPDX-License-Identifier: MIT
#include <unistd.h>

#include "pcie/internal/Ports.h"
#include "pcie/internal/Registers.h"

namespace {

// Microseconds until a setting reads back, or the link has had time to retrain.
constexpr useconds_t quietTransmitTime = 10000;
constexpr useconds_t analogLoopbackTime = 100000;
constexpr useconds_t retrainTime = 10000;

bool setTransmitterField(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port, std::uint32_t reg,
                         int index, unsigned int value) {
  if (index != 0) {
    return false;
  }
  diagnostics.setDevicePortBits(port, reg, value, ~transmitterField);
  return true;
}

}  // namespace

bool PCIeDiagnostics::setPostCursorEmphasis(PCIeDownstreamPorts port, int index,
                                            unsigned int value) {
  return setTransmitterField(*this, port, switchRegister::postCursorEmphasis, index, value);
}

bool PCIeDiagnostics::setDriveLevel(PCIeDownstreamPorts port, int index, unsigned int value) {
  return setTransmitterField(*this, port, switchRegister::driveLevel, index, value);
}

bool PCIeDiagnostics::setTo5GQuietTransmitWithoutLoopback(PCIeDownstreamPorts port, bool enable) {
  const std::uint32_t bits = rowOf(port).quietTransmitBits;
  if (!enable) {
    clearDevicePortBits(port, switchRegister::quietTransmit, bits);
    return true;
  }
  setDevicePortBits(port, switchRegister::quietTransmit, bits, keepAll);
  usleep(quietTransmitTime);
  if (testDevicePortBits(port, switchRegister::quietTransmit, bits & quietReadBack)) {
    clearDevicePortBits(port, switchRegister::quietTransmit, bits & quietReadBack);
  }
  return true;
}

bool PCIeDiagnostics::setPCIeExternalAnalogLoopback(PCIeDownstreamPorts port, bool enable) {
  const std::uint32_t bit = portMask(PortMask::analogLoopback, port);
  if (enable) {
    setDevicePortBits(port, switchRegister::analogLoopbackAndPrbsSync, bit, keepAll);
  } else {
    clearDevicePortBits(port, switchRegister::analogLoopbackAndPrbsSync, bit);
  }
  usleep(analogLoopbackTime);
  const bool ok =
      testDevicePortBits(port, switchRegister::analogLoopbackAndPrbsSync, bit) == enable;
  retrainLink(port);
  usleep(retrainTime);
  return ok;
}
