#include <unistd.h>

#include "pcie/internal/Ports.h"
#include "pcie/internal/Registers.h"

namespace {

constexpr std::uint32_t quietTransmitBits[] = {0x00010101, 0x00040404, 0x00080808,
                                               0x00101010, 0x00010101, 0x00040404};

// Microseconds.
constexpr useconds_t quietSettleTime = 10000;
constexpr useconds_t loopbackSettleTime = 100000;
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
  const std::uint32_t bits = portEntry(quietTransmitBits, port);
  if (!enable) {
    clearDevicePortBits(port, switchRegister::quietTransmit, bits);
    return true;
  }
  setDevicePortBits(port, switchRegister::quietTransmit, bits, keepAll);
  usleep(quietSettleTime);
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
  usleep(loopbackSettleTime);
  const bool ok =
      testDevicePortBits(port, switchRegister::analogLoopbackAndPrbsSync, bit) == enable;
  retrainLink(port);
  usleep(retrainTime);
  return ok;
}
