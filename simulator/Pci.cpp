#include "simulator/Pci.h"

#include <linux/pci_regs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "simulator/Power.h"

namespace simulator::pci {

namespace {

constexpr std::int64_t second = 1000000;
constexpr std::int64_t trainingTime = 1000;
constexpr std::int64_t never = -1;

// Link Status of a link that is up: active, one lane, 5 GT/s.
constexpr std::uint16_t goodLink =
    PCI_EXP_LNKSTA_DLLLA | PCI_EXP_LNKSTA_NLW_X1 | PCI_EXP_LNKSTA_CLS_5_0GB;

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

template <typename Value>
Value load(const PciDevice& device, std::uint32_t offset) {
  Value value{};
  std::memcpy(&value, device.config + offset, sizeof value);
  return value;
}

template <typename Value>
void put(PciDevice& device, std::uint32_t offset, Value value) {
  std::memcpy(device.config + offset, &value, sizeof value);
}

void putBits(PciDevice& device, std::uint32_t offset, std::uint32_t mask, bool set) {
  const auto value = load<std::uint32_t>(device, offset);
  put(device, offset, set ? value | mask : value & ~mask);
}

PciPlace placeOf(const State& state, const PciDevice& device) {
  return static_cast<PciPlace>(&device - state.pci);
}

const Layout& layoutOf(PciPlace place) { return place == rootPort ? rootLayout : switchLayout; }

void describeDevice(PciDevice& device, PciPlace place, int bus, int number, int secondary,
                    int subordinate) {
  device = {};
  device.present = true;
  device.bus = static_cast<std::uint8_t>(bus);
  device.device = static_cast<std::uint8_t>(number);
  device.linkUp = true;
  device.linkStatus = goodLink;
  device.linkLostAfter = never;
  device.prbsErrorsAfter = never;
  device.prbsSince = never;
  put(device, PCI_VENDOR_ID, vendorId);
  put(device, PCI_DEVICE_ID, deviceId(place));
  setClassCode(device, bridgeClass);
  put(device, PCI_HEADER_TYPE, std::uint8_t{PCI_HEADER_TYPE_BRIDGE});
  put(device, PCI_PRIMARY_BUS, device.bus);
  put(device, PCI_SECONDARY_BUS, static_cast<std::uint8_t>(secondary));
  put(device, PCI_SUBORDINATE_BUS, static_cast<std::uint8_t>(subordinate));
}

bool linkIsUp(const State& state, const PciDevice& device) {
  constexpr PciPlace slotPorts[] = {port1, port9, port7, port5};
  for (std::uint32_t slot = 0; slot < std::size(slotPorts); ++slot) {
    if (&device == &state.pci[slotPorts[slot]] && !power::isUp(state, slot)) {
      return false;  // no module behind the port
    }
  }
  return device.present && device.linkUp &&
         (device.linkLostAfter < 0 || now(state) < device.linkLostAfter);
}

bool prbsIsOn(const State& state, const PortWiring& port) {
  const PciDevice& upstream = state.pci[port.upstream];
  return (load<std::uint32_t>(upstream, prbsRegister) & port.prbsEnable) != 0;
}

bool isLoopbackMaster(const State& state, const PortWiring& port) {
  const PciDevice& upstream = state.pci[port.upstream];
  return (load<std::uint32_t>(upstream, loopbackRegister) & port.loopbackEnable) != 0 &&
         !state.pci[port.port].loopbackRefused;
}

bool inSync(const State& state, const PortWiring& port) {
  const PciDevice& device = state.pci[port.port];
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
void refreshSwitch(State& state, const PortWiring& port) {
  PciDevice& upstream = state.pci[port.upstream];
  putBits(upstream, linkRegister, port.link, linkIsUp(state, state.pci[port.port]));
  putBits(upstream, loopbackRegister, port.loopbackStatus, !isLoopbackMaster(state, port));
  putBits(upstream, syncRegister, port.prbsSync, inSync(state, port));
  const auto diagnostic = load<std::uint32_t>(upstream, diagnosticRegister);
  if ((diagnostic & selectMask) == port.select && prbsIsOn(state, port)) {
    put(upstream, diagnosticRegister,
        diagnostic | counterValid | errorCount(state, state.pci[port.port]) << 16);
  }
}

void refreshLinkStatus(const State& state, PciDevice& device, const Layout& layout) {
  const std::uint32_t offset = layout.pcie + PCI_EXP_LNKSTA;
  std::uint16_t status = linkIsUp(state, device) ? device.linkStatus : std::uint16_t{0};
  if (now(state) < device.trainingUntil) {
    status |= PCI_EXP_LNKSTA_LT;
  }
  put(device, offset, status);
}

void refresh(State& state, PciDevice& device) {
  const PciPlace place = placeOf(state, device);
  const Layout& layout = layoutOf(place);
  if (place == switchUpstream || place == shimUpstream) {
    putBits(device, diagnosticRegister, counterMask | counterValid, false);
  }
  for (const PortWiring& port : wiring) {
    if (port.upstream == place) {
      refreshSwitch(state, port);
    }
  }
  refreshLinkStatus(state, device, layout);
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
  const auto after = load<std::uint32_t>(state.pci[upstream], prbsRegister);
  for (const PortWiring& port : wiring) {
    if (port.upstream == upstream && (after & ~before & port.prbsEnable) != 0) {
      state.pci[port.port].prbsSince = now(state);
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

int refusal(const PciDevice& device, std::uint32_t offset, std::uint32_t size, int outside) {
  if (device.unreadable) {
    return EIO;
  }
  return offset > sizeof device.config - size ? outside : 0;
}

}  // namespace

void describeFabric(PciDevice (&devices)[pciPlaceCount]) {
  constexpr unsigned int ports = 4;
  constexpr int busesBehindPort = 4;
  constexpr int firstBus = 3;
  constexpr int last = firstBus + static_cast<int>(ports) * busesBehindPort - 1;
  describeDevice(devices[rootPort], rootPort, 0, 0, 1, last);
  describeDevice(devices[switchUpstream], switchUpstream, 1, 0, 2, last);
  constexpr int deviceNumbers[] = {1, 5, 7, 9};
  for (unsigned int port = 0; port < ports; ++port) {
    const auto place = static_cast<PciPlace>(port1 + port);
    const int bus = firstBus + static_cast<int>(port) * busesBehindPort;
    describeDevice(devices[place], place, 2, deviceNumbers[port], bus, bus + busesBehindPort - 1);
  }
}

void describeShim(PciDevice (&devices)[pciPlaceCount], PciPlace port) {
  const int bus = devices[port].config[PCI_SECONDARY_BUS];
  describeDevice(devices[shimUpstream], shimUpstream, bus, 0, bus + 1, bus + 3);
  describeDevice(devices[shimPort1], shimPort1, bus + 1, 1, bus + 2, bus + 2);
  describeDevice(devices[shimPort5], shimPort5, bus + 1, 5, bus + 3, bus + 3);
}

void setClassCode(PciDevice& device, std::uint32_t code) {
  putBits(device, PCI_CLASS_REVISION, 0xFFFFFF00, false);
  putBits(device, PCI_CLASS_REVISION, code << 8, true);
}

void setRegister(PciDevice& device, std::uint32_t offset, std::uint32_t value) {
  put(device, offset, value);
}

std::uint16_t deviceId(PciPlace place) { return static_cast<std::uint16_t>(0x1000 + place); }

PciDevice* find(State& state, std::uint32_t bus, std::uint32_t device) {
  for (PciDevice& candidate : state.pci) {
    if (candidate.present && candidate.bus == bus && candidate.device == device) {
      return &candidate;
    }
  }
  return nullptr;
}

int read(State& state, PciDevice& device, std::uint32_t offset, std::uint32_t size,
         std::uint32_t& value) {
  const int error = refusal(device, offset, size, ENXIO);
  if (error == 0) {
    refresh(state, device);
    value = 0;
    std::memcpy(&value, device.config + offset, size);
  }
  return error;
}

int write(State& state, PciDevice& device, std::uint32_t offset, std::uint32_t size,
          std::uint32_t value) {
  const int error = refusal(device, offset, size, EFBIG);
  if (error != 0) {
    return error;
  }
  const PciPlace place = placeOf(state, device);
  const auto prbsBefore = load<std::uint32_t>(device, prbsRegister);
  refresh(state, device);
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
