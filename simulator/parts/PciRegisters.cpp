// SPDX-License-Identifier: MIT
#include "simulator/parts/PciRegisters.h"

#include <linux/pci_regs.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
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
constexpr std::uint32_t driveLevelRegister = 0xB98;
constexpr std::uint32_t postCursorRegister = 0xBA8;

constexpr std::uint32_t serialNumber = PCI_CFG_SPACE_SIZE + 4;  // in its capability

constexpr std::uint16_t receivedSystemError = 0x4000;  // in Secondary Status

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

/// The wiring of a downstream port.
const PortWiring& wiringOf(PciPlace port) {
  return *std::find_if(std::begin(wiring), std::end(wiring),
                       [=](const PortWiring& row) { return row.port == port; });
}

/// The module that a port leads to; the number of modules for none.
std::uint32_t moduleOf(PciPlace place) {
  const PciPlace* const found = std::find(std::begin(modulePorts), std::end(modulePorts), place);
  return found == std::end(modulePorts)
             ? moduleCount
             : static_cast<std::uint32_t>(found - std::begin(modulePorts));
}

/// Whether a port is told to reset what is below it.
bool holdsReset(const PciDevice& port) {
  return (load<std::uint16_t>(port, PCI_BRIDGE_CONTROL) & PCI_BRIDGE_CTL_BUS_RESET) != 0;
}

/// Whether accesses reach a device: it is there, and so is all that leads to it.
bool isReached(const State& state, PciPlace place) {
  const PciDevice& device = state.hardware.pci[place];
  if (!device.described || device.absent) {
    return false;
  }
  const PciPlace above = device.above;
  return place == rootPort ||
         (isReached(state, above) && (isSwitch(above) || linkIsUp(state, above)));
}

/// How far a transmitter setting is from those from the first to the last.
std::uint32_t stepsFrom(const std::uint8_t (&range)[2], const PciDevice& upstream,
                        std::uint32_t offset) {
  const std::uint32_t setting = load<std::uint32_t>(upstream, offset) & TransmitterSettings::most;
  return setting < range[0] ? range[0] - setting : setting > range[1] ? setting - range[1] : 0;
}

/// How far the transmitter settings of a port's switch are from the nearest ones that bring no
/// errors about on the port.
std::uint32_t stepsFromGood(const Hardware& hardware, PciPlace port) {
  const PciDevice& device = hardware.pci[port];
  const PciDevice& upstream = hardware.pci[wiringOf(port).upstream];
  std::uint32_t steps = device.prbsGoodUsed == 0 ? 0 : ~0U;
  for (std::size_t index = 0; index < device.prbsGoodUsed; ++index) {
    const TransmitterSettings& good = device.prbsGood[index];
    steps = std::min(steps, stepsFrom(good.driveLevel, upstream, driveLevelRegister) +
                                stepsFrom(good.postCursor, upstream, postCursorRegister));
  }
  return steps;
}

bool inSync(const State& state, PciPlace port) {
  const PciDevice& device = state.hardware.pci[port];
  return prbsIsOn(state.hardware, port) && isLoopbackMaster(state.hardware, port) &&
         linkIsUp(state, port) && !device.prbsOutOfSync &&
         stepsFromGood(state.hardware, port) <= device.prbsSyncSteps;
}

constexpr std::int64_t lastCount = 255;

/// Errors per second that the transmitter settings bring about.
std::int64_t rateOfSettings(const Hardware& hardware, PciPlace port) {
  std::uint32_t steps = stepsFromGood(hardware, port);
  std::int64_t rate = steps == 0 ? 0 : 1;
  for (; steps != 0 && rate < lastCount * second; --steps) {
    rate *= hardware.pci[port].prbsErrorsPerStep;
  }
  return rate;
}

std::int64_t errorsIn(std::int64_t time, std::int64_t rate) {
  return time <= 0 || rate == 0             ? 0
         : time > lastCount * second / rate ? lastCount
                                            : time * rate / second;
}

std::uint32_t errorCount(const State& state, PciPlace port) {
  const PciDevice& device = state.hardware.pci[port];
  const std::int64_t time = now(state) - device.prbsSince;
  std::int64_t errors = errorsIn(time, rateOfSettings(state.hardware, port));
  if (device.prbsErrorsAfter >= 0) {
    errors += errorsIn(time - device.prbsErrorsAfter, device.prbsErrorsPerSecond);
  }
  return static_cast<std::uint32_t>(std::min(errors, lastCount));
}

// The registers that show what the ports do are made up when they are read.
void showPort(State& state, const PortWiring& port) {
  PciDevice& upstream = state.hardware.pci[port.upstream];
  putBits(upstream, linkRegister, port.link, linkIsUp(state, port.port));
  putBits(upstream, loopbackRegister, port.loopbackStatus,
          !isLoopbackMaster(state.hardware, port.port));
  putBits(upstream, syncRegister, port.prbsSync, inSync(state, port.port));
  const auto diagnostic = load<std::uint32_t>(upstream, diagnosticRegister);
  if ((diagnostic & selectMask) == port.select && prbsIsOn(state.hardware, port.port)) {
    put(upstream, diagnosticRegister,
        diagnostic | counterValid | errorCount(state, port.port) << 16);
  }
}

void showLink(const State& state, PciDevice& device, PciPlace place) {
  const PciPlace port = isSwitch(place) ? device.above : place;
  std::uint16_t status = linkIsUp(state, port) ? device.linkStatus : std::uint16_t{0};
  if (now(state) < device.trainingUntil) {
    status |= PCI_EXP_LNKSTA_LT;
  }
  if (isSwitch(place)) {  // the port above shows these
    status &= static_cast<std::uint16_t>(~(PCI_EXP_LNKSTA_DLLLA | PCI_EXP_LNKSTA_LT));
  }
  put(device, linkStatusOffset(place), status);
}

void showHardware(State& state, PciDevice& device) {
  const PciPlace place = placeOf(state, device);
  if (isSwitch(place)) {
    putBits(device, diagnosticRegister, counterMask | counterValid, false);
  }
  for (const PortWiring& port : wiring) {
    if (port.upstream == place) {
      showPort(state, port);
    }
  }
  showLink(state, device, place);
}

/// Errors that a description keeps latched, on all devices: the root port shows those below.
void latchAgain(State& state) {
  for (unsigned int place = 0; place < pciPlaceCount; ++place) {
    const PciDevice& device = state.hardware.pci[place];
    if ((device.uncorrectable | device.correctable) != 0 &&
        isReached(state, static_cast<PciPlace>(place))) {
      latch(state.hardware, static_cast<PciPlace>(place), device.uncorrectable, device.correctable);
    }
  }
}

// Bits of Root Error Status and the half of Error Source Identification that an error message
// brings about; the second bit is for another one of the same kind.
struct Message {
  std::uint32_t received;
  std::uint32_t more;
  std::uint32_t kind;
  std::uint32_t source;
};

constexpr Message correctableMessage = {PCI_ERR_ROOT_COR_RCV, PCI_ERR_ROOT_MULTI_COR_RCV, 0,
                                        PCI_ERR_ROOT_ERR_SRC};
constexpr Message nonFatalMessage = {PCI_ERR_ROOT_UNCOR_RCV, PCI_ERR_ROOT_MULTI_UNCOR_RCV,
                                     PCI_ERR_ROOT_NONFATAL_RCV, PCI_ERR_ROOT_ERR_SRC + 2};
constexpr Message fatalMessage = {PCI_ERR_ROOT_UNCOR_RCV, PCI_ERR_ROOT_MULTI_UNCOR_RCV,
                                  PCI_ERR_ROOT_FATAL_RCV, PCI_ERR_ROOT_ERR_SRC + 2};

void putStatus(PciDevice& device, std::uint32_t offset, std::uint16_t bits) {
  put(device, offset, static_cast<std::uint16_t>(load<std::uint16_t>(device, offset) | bits));
}

bool reportsSystemErrors(const PciDevice& device) {
  return (load<std::uint16_t>(device, PCI_COMMAND) & PCI_COMMAND_SERR) != 0;
}

void receive(PciDevice& root, const PciDevice& source, const Message& message) {
  const std::uint32_t offset = rootLayout.aer + PCI_ERR_ROOT_STATUS;
  auto status = load<std::uint32_t>(root, offset);
  if ((status & message.received) != 0) {
    status |= message.more;
  } else {
    const auto id = static_cast<std::uint16_t>(source.bus << 8 | source.device << 3);
    put(root, rootLayout.aer + message.source, id);
    if (message.kind == PCI_ERR_ROOT_FATAL_RCV) {
      status |= PCI_ERR_ROOT_FIRST_FATAL;
    }
  }
  put(root, offset, status | message.received | message.kind);
}

/// Sends a message to the root port. Bridges pass it on where they are told to.
void send(Hardware& hardware, PciPlace source, const Message& message) {
  PciPlace place = source;
  const bool isCorrectable = message.kind == 0;
  if (!isCorrectable && reportsSystemErrors(hardware.pci[place])) {
    putStatus(hardware.pci[place], PCI_STATUS, PCI_STATUS_SIG_SYSTEM_ERROR);
  }
  while (place != rootPort) {
    place = hardware.pci[place].above;
    PciDevice& bridge = hardware.pci[place];
    if (!isCorrectable) {
      putStatus(bridge, PCI_SEC_STATUS, receivedSystemError);
    }
    const auto control = load<std::uint16_t>(bridge, PCI_BRIDGE_CONTROL);
    const bool passesOn =
        (control & PCI_BRIDGE_CTL_SERR) != 0 && (isCorrectable || reportsSystemErrors(bridge));
    if (place != rootPort && !passesOn) {
      return;
    }
    if (!isCorrectable && reportsSystemErrors(bridge)) {
      putStatus(bridge, PCI_STATUS, PCI_STATUS_SIG_SYSTEM_ERROR);
    }
  }
  receive(hardware.pci[rootPort], hardware.pci[source], message);
}

/// Latches one kind of error: the status bits, the detected bit of Device Status and, unless all
/// are masked or the kind is not reported, a message.
void latchKind(Hardware& hardware, PciPlace place, std::uint32_t statusOffset, std::uint32_t bits,
               std::uint16_t detected, std::uint16_t enable, const Message& message) {
  PciDevice& device = hardware.pci[place];
  const Layout& layout = layoutOf(place);
  const std::uint32_t status = layout.aer + statusOffset;
  const std::uint32_t fresh = bits & ~load<std::uint32_t>(device, status);
  if (fresh == 0) {
    return;
  }
  const std::uint32_t pointer = layout.aer + PCI_ERR_CAP;
  const auto mask = load<std::uint32_t>(device, status + 4);  // stands after its status
  if (message.kind != 0 && (fresh & ~mask) != 0 &&
      (load<std::uint32_t>(device, status) & ~mask) == 0) {
    putBits(device, pointer, PCI_ERR_CAP_FEP(~0U), false);
    putBits(device, pointer, static_cast<std::uint32_t>(__builtin_ctz(fresh & ~mask)), true);
  }
  putBits(device, status, fresh, true);
  putStatus(device, layout.pcie + PCI_EXP_DEVSTA, detected);
  const bool reported = (load<std::uint16_t>(device, layout.pcie + PCI_EXP_DEVCTL) & enable) != 0 ||
                        (message.kind != 0 && reportsSystemErrors(device));
  if ((fresh & ~mask) != 0 && reported) {
    send(hardware, place, message);
  }
}

struct WriteRule {
  std::uint32_t clears;    ///< bits that a written 1 clears
  std::uint32_t readOnly;  ///< bits that writes do not change
};

/// How the 32-bit word at an offset takes a write.
WriteRule ruleFor(PciPlace place, std::uint32_t word) {
  const Layout& layout = layoutOf(place);
  const std::uint32_t constant[] = {PCI_VENDOR_ID,
                                    PCI_CLASS_REVISION,
                                    PCI_BASE_ADDRESS_0,
                                    PCI_BASE_ADDRESS_1,
                                    PCI_CAPABILITY_LIST,
                                    layout.pcie,
                                    layout.pcie + PCI_EXP_DEVCAP,
                                    layout.pcie + PCI_EXP_LNKCAP,
                                    layout.pcie + PCI_EXP_DEVCAP2,
                                    layout.pcie + PCI_EXP_LNKCAP2,
                                    layout.aer,
                                    layout.aer + PCI_ERR_HEADER_LOG,
                                    layout.aer + PCI_ERR_HEADER_LOG + 4,
                                    layout.aer + PCI_ERR_HEADER_LOG + 8,
                                    layout.aer + PCI_ERR_HEADER_LOG + 12,
                                    PCI_CFG_SPACE_SIZE,
                                    serialNumber,
                                    serialNumber + 4};
  const std::uint32_t errors[] = {layout.aer + PCI_ERR_UNCOR_STATUS,
                                  layout.aer + PCI_ERR_COR_STATUS,
                                  layout.aer + PCI_ERR_ROOT_STATUS};
  const auto isOneOf = [&](const auto& words) {
    return std::find(std::begin(words), std::end(words), word) != std::end(words);
  };
  if (isOneOf(errors)) {
    return {~0U, 0};
  }
  if (word == PCI_CACHE_LINE_SIZE) {
    return {0, 0xFFFFFF00};
  }
  if (word == layout.aer + PCI_ERR_CAP) {
    return {0, PCI_ERR_CAP_FEP(~0U) | PCI_ERR_CAP_ECRC_GENC | PCI_ERR_CAP_ECRC_CHKC};
  }
  if (place == rootPort && word == layout.aer + PCI_ERR_ROOT_ERR_SRC) {
    return {0, ~0U};
  }
  // A control register and, in the upper half, its status.
  if (word == PCI_COMMAND || word == (PCI_SEC_STATUS & ~3U)) {
    return {0xF9000000, 0x06FF0000};
  }
  if (word == layout.pcie + PCI_EXP_DEVCTL) {
    return {0x000F0000, 0xFFF00000};
  }
  if (word == layout.pcie + PCI_EXP_LNKCTL) {
    return {0, 0xFFFF0000};
  }
  return {0, isOneOf(constant) ? ~0U : 0};
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
    device.untrained = false;
  }
}

/// The device that the kernel has at an address; null when there is none.
PciDevice* find(State& state, std::uint32_t bus, std::uint32_t number) {
  for (PciDevice& device : state.hardware.pci) {
    if (device.listed && device.bus == bus && device.device == number) {
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

/// Resets all devices below a port. What the kernel writes anew after that, the numbers of their
/// buses, is among what they had when the instrument started.
void resetBelow(Hardware& hardware, PciPlace port) {
  for (unsigned int place = port + 1; place < pciPlaceCount; ++place) {
    PciDevice& device = hardware.pci[place];
    if (device.described && device.above == port) {
      std::memcpy(device.config, device.afterReset, sizeof device.config);
      resetBelow(hardware, static_cast<PciPlace>(place));
    }
  }
}

/// The device of a path such as "0000:02:01.0/config"; null for none.
PciDevice* deviceOfFile(State& state, const std::string& path) {
  unsigned int bus = 0;
  unsigned int number = 0;
  int end = 0;
  std::sscanf(path.c_str(), "0000:%2x:%2x.0/config%n", &bus, &number, &end);
  return end != 0 && static_cast<std::size_t>(end) == path.size() ? find(state, bus, number)
                                                                  : nullptr;
}

}  // namespace

void putBits(PciDevice& device, std::uint32_t offset, std::uint32_t mask, bool set) {
  const auto value = load<std::uint32_t>(device, offset);
  put(device, offset, set ? value | mask : value & ~mask);
}

bool isDownstreamPort(PciPlace place) { return place != rootPort && !isSwitch(place); }

bool isSwitch(PciPlace place) { return place == switchUpstream || place == shimUpstream; }

void reset(PciDevice& device, PciPlace place) {
  constexpr std::uint32_t fatal = PCI_ERR_UNC_DLP | PCI_ERR_UNC_SURPDN | PCI_ERR_UNC_FCP |
                                  PCI_ERR_UNC_RX_OVER | PCI_ERR_UNC_MALF_TLP | PCI_ERR_UNC_INTN;
  const Layout& layout = layoutOf(place);
  const std::uint32_t type = place == rootPort ? PCI_EXP_TYPE_ROOT_PORT
                             : isSwitch(place) ? PCI_EXP_TYPE_UPSTREAM
                                               : PCI_EXP_TYPE_DOWNSTREAM;
  const std::uint32_t reporting =
      isSwitch(place) ? 0 : PCI_EXP_LNKCAP_SDERC | PCI_EXP_LNKCAP_DLLLARC;
  put(device, PCI_STATUS, std::uint16_t{PCI_STATUS_CAP_LIST});
  put(device, PCI_HEADER_TYPE, std::uint8_t{PCI_HEADER_TYPE_BRIDGE});
  put(device, PCI_CAPABILITY_LIST, static_cast<std::uint8_t>(layout.pcie));
  put(device, layout.pcie, PCI_CAP_ID_EXP | 2U << 16 | type << 20);
  put(device, layout.pcie + PCI_EXP_DEVCAP, std::uint32_t{PCI_EXP_DEVCAP_RBER});
  put(device, layout.pcie + PCI_EXP_LNKCAP,
      std::uint32_t{PCI_EXP_LNKCAP_SLS_5_0GB} | 1U << 4 | reporting |
          std::uint32_t{device.device} << 24);
  put(device, layout.pcie + PCI_EXP_LNKCTL2, std::uint32_t{PCI_EXP_LNKCTL2_TLS_5_0GT});
  if (layout.aer != PCI_CFG_SPACE_SIZE) {
    // The list of extended capabilities begins with the serial number of the switch.
    put(device, PCI_CFG_SPACE_SIZE, PCI_EXT_CAP_ID_DSN | 1U << 16 | layout.aer << 20);
    put(device, serialNumber, std::uint32_t{device.bus});
  }
  put(device, layout.aer, PCI_EXT_CAP_ID_ERR | 1U << 16);
  put(device, layout.aer + PCI_ERR_UNCOR_SEVER, fatal);
  put(device, layout.aer + PCI_ERR_COR_MASK, std::uint32_t{PCI_ERR_COR_ADV_NFAT});
  put(device, layout.aer + PCI_ERR_CAP,
      std::uint32_t{PCI_ERR_CAP_ECRC_GENC | PCI_ERR_CAP_ECRC_CHKC});
}

std::uint32_t linkStatusOffset(PciPlace place) { return layoutOf(place).pcie + PCI_EXP_LNKSTA; }

std::uint32_t madeUpBits(PciPlace place, std::uint32_t word) {
  if (word == layoutOf(place).pcie + PCI_EXP_LNKCTL) {
    return 0xFFFF0000;
  }
  if (!isSwitch(place)) {
    return 0;
  }
  std::uint32_t loopback = 0;
  std::uint32_t sync = 0;
  for (const PortWiring& port : wiring) {
    loopback |= port.upstream == place ? port.loopbackStatus : 0;
    sync |= port.upstream == place ? port.prbsSync : 0;
  }
  switch (word) {
    case linkRegister:
      return ~0U;  // a status register as a whole
    case loopbackRegister:
      return loopback;
    case syncRegister:
      return sync;
    case diagnosticRegister:
      return counterMask | counterValid;
    default:
      return 0;
  }
}

bool linkIsUp(const State& state, PciPlace place) {
  const PciDevice& device = state.hardware.pci[place];
  const std::uint32_t module = moduleOf(place);
  const auto control = load<std::uint16_t>(device, layoutOf(place).pcie + PCI_EXP_LNKCTL);
  const bool moduleRuns = module == moduleCount ||
                          (power::isUp(state, module) && power::hasClock(state.hardware, module));
  const PciDevice& below = state.hardware.pci[place == rootPort ? switchUpstream : shimUpstream];
  const bool isPulled = below.above == place && below.listed && below.absent;
  return device.described && !device.absent && device.linkUp && !device.untrained && moduleRuns &&
         (control & PCI_EXP_LNKCTL_LD) == 0 && !holdsReset(device) && !isPulled;
}

bool prbsIsOn(const Hardware& hardware, PciPlace port) {
  const PortWiring& row = wiringOf(port);
  return (load<std::uint32_t>(hardware.pci[row.upstream], prbsRegister) & row.prbsEnable) != 0;
}

bool isLoopbackMaster(const Hardware& hardware, PciPlace port) {
  const PortWiring& row = wiringOf(port);
  const auto enabled = load<std::uint32_t>(hardware.pci[row.upstream], loopbackRegister);
  return (enabled & row.loopbackEnable) != 0 && !hardware.pci[port].loopbackRefused;
}

void latch(Hardware& hardware, PciPlace place, std::uint32_t uncorrectable,
           std::uint32_t correctable) {
  const auto fatal =
      load<std::uint32_t>(hardware.pci[place], layoutOf(place).aer + PCI_ERR_UNCOR_SEVER);
  latchKind(hardware, place, PCI_ERR_COR_STATUS, correctable, PCI_EXP_DEVSTA_CED,
            PCI_EXP_DEVCTL_CERE, correctableMessage);
  latchKind(hardware, place, PCI_ERR_UNCOR_STATUS, uncorrectable & ~fatal, PCI_EXP_DEVSTA_NFED,
            PCI_EXP_DEVCTL_NFERE, nonFatalMessage);
  latchKind(hardware, place, PCI_ERR_UNCOR_STATUS, uncorrectable & fatal, PCI_EXP_DEVSTA_FED,
            PCI_EXP_DEVCTL_FERE, fatalMessage);
}

void settle(State& state) {
  for (unsigned int index = 0; index < pciPlaceCount; ++index) {
    const auto place = static_cast<PciPlace>(index);
    PciDevice& device = state.hardware.pci[place];
    const std::uint32_t module = moduleOf(place);
    if (!state.hardware.running) {
      device.listed = device.described && !device.absent;
      std::memcpy(device.afterReset, device.config, sizeof device.config);
    } else if (module != moduleCount) {
      // Without power the module forgets that it needs retraining.
      device.untrained = power::isUp(state, module) &&
                         (device.untrained || !power::hasClock(state.hardware, module));
    }
    const bool up = device.described && !isSwitch(place) && linkIsUp(state, place);
    const auto control = load<std::uint16_t>(device, layoutOf(place).pcie + PCI_EXP_LNKCTL);
    const bool told = (control & PCI_EXP_LNKCTL_LD) != 0 || holdsReset(device);
    if (device.linkWasUp && !up) {
      resetBelow(state.hardware, place);
      if (!told && isReached(state, place)) {
        latch(state.hardware, place, PCI_ERR_UNC_SURPDN, 0);
      }
    }
    device.linkWasUp = up;
  }
}

int read(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
         std::uint32_t size, std::uint32_t& value) {
  PciDevice* const device = find(state, bus, number);
  const int error = refusal(device, offset, size, ENXIO);
  if (error != 0) {
    return error;
  }
  settle(state);
  latchAgain(state);
  value = ~0U >> (32 - size * 8);
  if (isReached(state, placeOf(state, *device))) {
    showHardware(state, *device);
    value = 0;
    std::memcpy(&value, device->config + offset, size);
  }
  return 0;
}

int write(State& state, std::uint32_t bus, std::uint32_t number, std::uint32_t offset,
          std::uint32_t size, std::uint32_t value) {
  PciDevice* const found = find(state, bus, number);
  const int error = refusal(found, offset, size, EFBIG);
  if (error != 0) {
    return error;
  }
  settle(state);
  latchAgain(state);
  PciDevice& device = *found;
  const PciPlace place = placeOf(state, device);
  if (!isReached(state, place)) {
    return 0;
  }
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
  if (!isSwitch(place)) {
    retrain(state, device, layoutOf(place));
  }
  return 0;
}

bool owns(const std::string& path) {
  return path.size() > 6 && path.compare(path.size() - 7, 7, "/config") == 0;
}

int open(const std::string& path, bool /*writing*/, std::string& content) {
  const Locked state;
  PciDevice* const device = deviceOfFile(*state, path);
  if (device == nullptr || device->unreadable) {
    return device == nullptr ? ENOENT : EIO;
  }
  settle(*state);
  latchAgain(*state);
  content.assign(sizeof device->config, '\xFF');
  if (isReached(*state, placeOf(*state, *device))) {
    showHardware(*state, *device);
    std::memcpy(content.data(), device->config, sizeof device->config);
  }
  return 0;
}

int store(const std::string& path, const std::string& text, std::size_t offset) {
  const Locked state;
  const PciDevice* const device = deviceOfFile(*state, path);
  if (device == nullptr) {
    return ENODEV;
  }
  int error = 0;
  for (std::size_t done = 0, size = 0; error == 0 && done < text.size(); done += size) {
    // In the widest pieces that begin where a register of their width may.
    const std::size_t place = offset + done;
    size = text.size() - done;
    size = place % 2 != 0 || size == 1 ? 1 : place % 4 != 0 || size < 4 ? 2 : 4;
    std::uint32_t value = 0;
    std::memcpy(&value, text.data() + done, size);
    error = write(*state, device->bus, device->device, static_cast<std::uint32_t>(place),
                  static_cast<std::uint32_t>(size), value);
  }
  return error;
}

}  // namespace simulator::pci
