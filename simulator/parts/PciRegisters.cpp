// SPDX-License-Identifier: MIT
#include "simulator/parts/PciRegisters.h"

#include <linux/pci_regs.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "simulator/parts/PowerLinks.h"
#include "simulator/shared/Clock.h"

namespace simulator::pci {

namespace {

constexpr std::int64_t second = 1000000;
constexpr std::int64_t trainingTime = 1000;

/// Where a kind of device has its capabilities.
struct Layout {
  std::uint32_t pcie;
  std::uint32_t aer;
};

constexpr Layout rootLayout = {0x70, 0x100};
constexpr Layout switchLayout = {0x68, 0xFB4};

// Registers of a switch, in the configuration space of its upstream port.
constexpr std::uint32_t linkRegister = 0x1F4;
constexpr std::uint32_t loopbackRegister = 0x224;
constexpr std::uint32_t diagnosticRegister = 0x244;
constexpr std::uint32_t prbsRegister = 0x25C;
constexpr std::uint32_t syncRegister = 0xB84;

constexpr std::uint32_t counterValid = 0x40000000;
constexpr std::uint32_t counterMask = 0x00FF0000;
constexpr std::uint32_t selectMask = 0x03000000;

/// A downstream port's bits in the registers of its switch.
struct PortWiring {
  PciPlace port;
  PciPlace upstream;
  std::uint32_t link;
  std::uint32_t loopbackEnable;
  std::uint32_t loopbackStatus;
  std::uint32_t select;
  std::uint32_t prbsEnable;
  std::uint32_t prbsSync;
};

constexpr PortWiring wiring[] = {
    {port1, switchUpstream, 1U << 8, 1U << 0, 1U << 3, 0U << 24, 1U << 24, 1U << 16},
    {port5, switchUpstream, 1U << 9, 1U << 16, 1U << 19, 3U << 24, 1U << 27, 1U << 19},
    {port7, switchUpstream, 1U << 10, 1U << 12, 1U << 15, 2U << 24, 1U << 26, 1U << 18},
    {port9, switchUpstream, 1U << 11, 1U << 8, 1U << 11, 1U << 24, 1U << 25, 1U << 17},
    {shimPort1, shimUpstream, 1U << 8, 1U << 0, 1U << 3, 0U << 24, 1U << 24, 1U << 16},
    {shimPort5, shimUpstream, 1U << 9, 1U << 8, 1U << 11, 1U << 24, 1U << 25, 1U << 17},
};

PciPlace placeOf(const State& state, const PciDevice& device) {
  return static_cast<PciPlace>(&device - state.hardware.pci);
}

const Layout& layoutOf(PciPlace place) { return place == rootPort ? rootLayout : switchLayout; }

bool linkIsUp(const State& state, const PciDevice& device) {
  for (std::uint32_t module = 0; module < std::size(modulePorts); ++module) {
    if (&device == &state.hardware.pci[modulePorts[module]] && !power::isUp(state, module)) {
      return false;
    }
  }
  return device.present && device.linkUp &&
         (device.linkLostAfter < 0 || now(state) < device.linkLostAfter);
}

bool prbsIsOn(const State& state, const PortWiring& port) {
  const PciDevice& upstream = state.hardware.pci[port.upstream];
  return (load<std::uint32_t>(upstream, prbsRegister) & port.prbsEnable) != 0;
}

bool isLoopbackMaster(const State& state, const PortWiring& port) {
  const PciDevice& upstream = state.hardware.pci[port.upstream];
  return (load<std::uint32_t>(upstream, loopbackRegister) & port.loopbackEnable) != 0 &&
         !state.hardware.pci[port.port].loopbackRefused;
}

bool inSync(const State& state, const PortWiring& port) {
  const PciDevice& device = state.hardware.pci[port.port];
  return prbsIsOn(state, port) && isLoopbackMaster(state, port) && linkIsUp(state, device) &&
         !device.prbsOutOfSync;
}

std::uint32_t errorCount(const State& state, const PciDevice& device) {
  if (device.prbsErrorsAfter < 0) {
    return 0;
  }
  const std::int64_t time = now(state) - device.prbsSince - device.prbsErrorsAfter;
  const std::int64_t count = time <= 0 ? 0 : time * device.prbsErrorsPerSecond / second;
  return static_cast<std::uint32_t>(std::min<std::int64_t>(count, 255));
}

// The registers that show what the ports do are made up when they are read.
void showPort(State& state, const PortWiring& port) {
  PciDevice& upstream = state.hardware.pci[port.upstream];
  putBits(upstream, linkRegister, port.link, linkIsUp(state, state.hardware.pci[port.port]));
  putBits(upstream, loopbackRegister, port.loopbackStatus, !isLoopbackMaster(state, port));
  putBits(upstream, syncRegister, port.prbsSync, inSync(state, port));
  const auto diagnostic = load<std::uint32_t>(upstream, diagnosticRegister);
  if ((diagnostic & selectMask) == port.select && prbsIsOn(state, port)) {
    put(upstream, diagnosticRegister,
        diagnostic | counterValid | errorCount(state, state.hardware.pci[port.port]) << 16);
  }
}

void showLink(const State& state, PciDevice& device, const Layout& layout) {
  const std::uint32_t offset = layout.pcie + PCI_EXP_LNKSTA;
  std::uint16_t status = linkIsUp(state, device) ? device.linkStatus : std::uint16_t{0};
  if (now(state) < device.trainingUntil) {
    status |= PCI_EXP_LNKSTA_LT;
  }
  put(device, offset, status);
}

void showHardware(State& state, PciDevice& device) {
  const PciPlace place = placeOf(state, device);
  const Layout& layout = layoutOf(place);
  if (place == switchUpstream || place == shimUpstream) {
    putBits(device, diagnosticRegister, counterMask | counterValid, false);
  }
  for (const PortWiring& port : wiring) {
    if (port.upstream == place) {
      showPort(state, port);
    }
  }
  showLink(state, device, layout);
  putBits(device, layout.aer + PCI_ERR_UNCOR_STATUS, device.uncorrectable, true);
  putBits(device, layout.aer + PCI_ERR_COR_STATUS, device.correctable, true);
}

struct WriteRule {
  std::uint32_t clears;    ///< bits that a written 1 clears
  std::uint32_t readOnly;  ///< bits that writes do not change
};

/// How the 32-bit word at an offset takes a write.
WriteRule ruleFor(PciPlace place, std::uint32_t word) {
  const Layout& layout = layoutOf(place);
  if (word == PCI_VENDOR_ID || word == PCI_CLASS_REVISION || word == (PCI_HEADER_TYPE & ~3U)) {
    return {0, ~0U};
  }
  // A control register and, in the upper half, its status.
  if (word == PCI_COMMAND) {
    return {0xF9000000, 0x06FF0000};
  }
  if (word == layout.pcie + PCI_EXP_DEVCTL) {
    return {0x000F0000, 0xFFF00000};
  }
  if (word == layout.pcie + PCI_EXP_LNKCTL) {
    return {0, 0xFFFF0000};
  }
  const std::uint32_t errors[] = {PCI_ERR_UNCOR_STATUS, PCI_ERR_COR_STATUS, PCI_ERR_ROOT_STATUS};
  for (const std::uint32_t status : errors) {
    if (word == layout.aer + status) {
      return {~0U, 0};
    }
  }
  return {0, 0};
}

void startPrbs(State& state, PciPlace upstream, std::uint32_t before) {
  const auto after = load<std::uint32_t>(state.hardware.pci[upstream], prbsRegister);
  for (const PortWiring& port : wiring) {
    if (port.upstream == upstream && (after & ~before & port.prbsEnable) != 0) {
      state.hardware.pci[port.port].prbsSince = now(state);
    }
  }
}

void retrain(const State& state, PciDevice& device, const Layout& layout) {
  const std::uint32_t control = layout.pcie + PCI_EXP_LNKCTL;
  const auto value = load<std::uint16_t>(device, control);
  if ((value & PCI_EXP_LNKCTL_RL) != 0) {
    put(device, control, static_cast<std::uint16_t>(value & ~PCI_EXP_LNKCTL_RL));
    device.trainingUntil = now(state) + trainingTime;
  }
}

/// The device at an address; null when there is none.
PciDevice* find(State& state, std::uint32_t bus, std::uint32_t number) {
  for (PciDevice& device : state.hardware.pci) {
    if (device.present && device.bus == bus && device.device == number) {
      return &device;
    }
  }
  return nullptr;
}

int refusal(const PciDevice* device, std::uint32_t offset, std::uint32_t size, int outside) {
  if (device == nullptr) {
    return ENODEV;
  }
  if (device->unreadable) {
    return EIO;
  }
  return offset > sizeof device->config - size ? outside : 0;
}

}  // namespace

void putBits(PciDevice& device, std::uint32_t offset, std::uint32_t mask, bool set) {
  const auto value = load<std::uint32_t>(device, offset);
  put(device, offset, set ? value | mask : value & ~mask);
}

int read(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
         std::uint32_t size, std::uint32_t& value) {
  PciDevice* const device = find(state, bus, number);
  const int error = refusal(device, offset, size, ENXIO);
  if (error == 0) {
    showHardware(state, *device);
    value = 0;
    std::memcpy(&value, device->config + offset, size);
  }
  return error;
}

int write(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
          std::uint32_t size, std::uint32_t value) {
  PciDevice* const found = find(state, bus, number);
  const int error = refusal(found, offset, size, EFBIG);
  if (error != 0) {
    return error;
  }
  PciDevice& device = *found;
  const PciPlace place = placeOf(state, device);
  const auto prbsBefore = load<std::uint32_t>(device, prbsRegister);
  showHardware(state, device);
  for (std::uint32_t index = offset; index < offset + size; ++index, value >>= 8) {
    const WriteRule rule = ruleFor(place, index & ~3U);
    const auto clears = static_cast<std::uint8_t>(rule.clears >> index % 4 * 8);
    const auto fixed =
        static_cast<std::uint8_t>(rule.readOnly >> index % 4 * 8 | device.stuck[index]);
    const std::uint8_t before = device.config[index];
    const auto written = static_cast<std::uint8_t>(value);
    const auto after =
        static_cast<std::uint8_t>((before & clears & ~written) | (written & ~clears));
    device.config[index] = static_cast<std::uint8_t>((before & fixed) | (after & ~fixed));
  }
  startPrbs(state, place, prbsBefore);
  retrain(state, device, layoutOf(place));
  return 0;
}

}  // namespace simulator::pci
