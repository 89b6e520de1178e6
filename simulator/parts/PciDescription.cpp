// SPDX-License-Identifier: MIT
#include <linux/pci_regs.h>

#include <cstring>
#include <regex>
#include <sstream>

#include "simulator/parts/Part.h"
#include "simulator/parts/PciRegisters.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

using pci::load;
using pci::put;

constexpr std::int64_t never = -1;
constexpr std::uint16_t vendorId = 0x7A1E;
constexpr std::uint16_t firstDeviceId = 0x1000;  // each device has its own
constexpr std::uint32_t bridgeClass = 0x060400;

// Link Status of a link that is up: active, one lane, 5 GT/s.
constexpr std::uint16_t goodLink =
    PCI_EXP_LNKSTA_DLLLA | PCI_EXP_LNKSTA_NLW_X1 | PCI_EXP_LNKSTA_CLS_5_0GB;

void setClassCode(PciDevice& device, std::uint32_t code) {
  pci::putBits(device, PCI_CLASS_REVISION, 0xFFFFFF00, false);
  pci::putBits(device, PCI_CLASS_REVISION, code << 8, true);
}

void describeDevice(PciDevice (&devices)[pciPlaceCount], PciPlace place, int bus, int number,
                    int secondary, int subordinate) {
  PciDevice& device = devices[place];
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
  put(device, PCI_DEVICE_ID, static_cast<std::uint16_t>(firstDeviceId + place));
  setClassCode(device, bridgeClass);
  put(device, PCI_HEADER_TYPE, std::uint8_t{PCI_HEADER_TYPE_BRIDGE});
  put(device, PCI_PRIMARY_BUS, device.bus);
  put(device, PCI_SECONDARY_BUS, static_cast<std::uint8_t>(secondary));
  put(device, PCI_SUBORDINATE_BUS, static_cast<std::uint8_t>(subordinate));
}

/// The fabric without a shim switch, everything present and in order.
void beginPci(Hardware& hardware, const std::string& /*instance*/) {
  constexpr int busesBehindPort = 4;
  constexpr int firstBus = 3;
  constexpr int deviceNumbers[] = {1, 5, 7, 9};  // from port1 on
  constexpr int ports = static_cast<int>(std::size(deviceNumbers));
  constexpr int last = firstBus + ports * busesBehindPort - 1;
  hardware.pciSystem = true;
  describeDevice(hardware.pci, rootPort, 0, 0, 1, last);
  describeDevice(hardware.pci, switchUpstream, 1, 0, 2, last);
  for (int port = 0; port < ports; ++port) {
    const int bus = firstBus + port * busesBehindPort;
    describeDevice(hardware.pci, static_cast<PciPlace>(port1 + static_cast<unsigned int>(port)), 2,
                   deviceNumbers[port], bus, bus + busesBehindPort - 1);
  }
}

void setPci(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
            const std::string& value) {
  if (key != "shim") {
    throw unknownKey();
  }
  const std::uint32_t module = number(value);
  if (module >= std::size(modulePorts)) {
    throw mustBe("a module number from 0 to 3", value);
  }
  const int bus = hardware.pci[modulePorts[module]].config[PCI_SECONDARY_BUS];
  describeDevice(hardware.pci, shimUpstream, bus, 0, bus + 1, bus + 3);
  describeDevice(hardware.pci, shimPort1, bus + 1, 1, bus + 2, bus + 2);
  describeDevice(hardware.pci, shimPort5, bus + 1, 5, bus + 3, bus + 3);
}

PciDevice& deviceAt(Hardware& hardware, const std::string& name) {
  const std::size_t place = indexOf(pciPlaceNames, name);
  if (place == pciPlaceCount) {
    throw std::runtime_error("unknown group");
  }
  return hardware.pci[place];
}

void beginDevice(Hardware& hardware, const std::string& instance) {
  if (!deviceAt(hardware, instance).present) {
    throw std::runtime_error("no such device; describe [pci] and its shim first");
  }
}

constexpr Key<PciDevice> deviceKeys[] = {
    {"present", &PciDevice::present, {"yes", "no"}},
    {"readable", &PciDevice::unreadable, {"no", "yes"}},
    {"link", &PciDevice::linkUp, {"up", "down"}},
    {"link-lost-after", &PciDevice::linkLostAfter, {"never"}},
    {"link-status", &PciDevice::linkStatus},
    {"uncorrectable", &PciDevice::uncorrectable},
    {"correctable", &PciDevice::correctable},
    {"loopback", &PciDevice::loopbackRefused, {"refused", "ok"}},
    {"prbs", &PciDevice::prbsOutOfSync, {"no-sync", "sync"}},
    {"prbs-errors-after", &PciDevice::prbsErrorsAfter, {"never"}},
    {"prbs-errors-per-second", &PciDevice::prbsErrorsPerSecond},
};

std::uint32_t registerOffset(const std::string& digits) {
  const std::uint32_t offset = number("0x" + digits);
  if (offset % 4 != 0 || offset >= sizeof PciDevice::config) {
    throw std::runtime_error("not the offset of a 32-bit register, from 0 to ffc");
  }
  return offset;
}

void setDevice(Hardware& hardware, const std::string& instance, const std::string& key,
               const std::string& value) {
  PciDevice& device = deviceAt(hardware, instance);
  static const std::regex perRegister("(register|stuck)-([0-9a-f]{1,3})");
  std::smatch match;
  if (std::regex_match(key, match, perRegister)) {
    const std::uint32_t bits = number(value);
    std::uint8_t* const bytes = match[1] == "register" ? device.config : device.stuck;
    std::memcpy(bytes + registerOffset(match[2]), &bits, sizeof bits);
  } else if (key == "class") {
    const std::uint32_t code = number(value);
    if (code > 0xFFFFFF) {
      throw mustBe("a class code from 0 to 0xffffff", value);
    }
    setClassCode(device, code);
  } else {
    setKey(deviceKeys, device, key, value);
  }
}

std::string hexText(std::uint32_t number) {
  std::ostringstream text;
  text << "0x" << std::hex << number << "\n";  // libpciaccess wants the line end
  return text.str();
}

/// What libpciaccess reads when it discovers a device.
void createDevice(const std::filesystem::path& devices, const PciDevice& device) {
  char name[32];
  std::snprintf(name, sizeof name, "0000:%02x:%02x.0", device.bus, device.device);
  const std::filesystem::path directory = devices / name;
  createFile(directory / "config",
             std::string(reinterpret_cast<const char*>(device.config), sizeof device.config));
  createFile(directory / "vendor", hexText(load<std::uint16_t>(device, PCI_VENDOR_ID)));
  createFile(directory / "device", hexText(load<std::uint16_t>(device, PCI_DEVICE_ID)));
  createFile(directory / "class", hexText(load<std::uint32_t>(device, PCI_CLASS_REVISION) >> 8));
  createFile(directory / "revision", hexText(device.config[PCI_REVISION_ID]));
  createFile(directory / "subsystem_vendor", hexText(0));
  createFile(directory / "subsystem_device", hexText(0));
  createFile(directory / "irq", "0\n");
  createFile(directory / "resource", "");
}

void createTree(const Hardware& hardware, const std::filesystem::path& root) {
  if (!hardware.pciSystem) {
    return;
  }
  const std::filesystem::path devices = root / "sys/bus/pci/devices";
  std::filesystem::create_directories(devices);
  for (const PciDevice& device : hardware.pci) {
    if (device.present) {
      createDevice(devices, device);
    }
  }
}

constexpr Group groups[] = {{"pci", false, beginPci, setPci},
                            {"pci", true, beginDevice, setDevice}};

}  // namespace

const Part pciPart = {groups, std::size(groups), createTree, {}};

}  // namespace simulator
