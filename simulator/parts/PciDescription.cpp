// SPDX-License-Identifier: MIT
#include <linux/pci_regs.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <regex>
#include <string>

#include "simulator/parts/Changes.h"
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

void describeDevice(PciDevice (&devices)[pciPlaceCount], PciPlace place, PciPlace above,
                    int number) {
  PciDevice& device = devices[place];
  device = {};
  device.described = true;
  device.device = static_cast<std::uint8_t>(number);
  device.above = above;
  device.linkUp = true;
  device.linkStatus = goodLink;
  device.prbsErrorsAfter = never;
  device.prbsErrorsPerStep = 4;
  device.prbsSyncSteps = 3;
  pci::reset(device, place);
  put(device, PCI_VENDOR_ID, vendorId);
  put(device, PCI_DEVICE_ID, static_cast<std::uint16_t>(firstDeviceId + place));
  setClassCode(device, bridgeClass);
}

/// Numbers the bus below a bridge and those behind it from `bus` on, as the kernel does: each way
/// to its end before the next. Returns the last one.
int numberBuses(PciDevice (&devices)[pciPlaceCount], PciPlace bridge, int bus) {
  int last = bus;
  for (unsigned int index = bridge + 1; index < pciPlaceCount; ++index) {
    const auto place = static_cast<PciPlace>(index);
    if (devices[place].described && devices[place].above == bridge) {
      devices[place].bus = static_cast<std::uint8_t>(bus);
      last = numberBuses(devices, place, last + 1);
    }
  }
  put(devices[bridge], PCI_PRIMARY_BUS, devices[bridge].bus);
  put(devices[bridge], PCI_SECONDARY_BUS, static_cast<std::uint8_t>(bus));
  put(devices[bridge], PCI_SUBORDINATE_BUS, static_cast<std::uint8_t>(last));
  return last;
}

/// The fabric without a shim switch, everything present and in order.
void beginPci(Hardware& hardware, const std::string& /*instance*/) {
  constexpr int deviceNumbers[] = {1, 5, 7, 9};  // from port1 on
  if (hardware.pciSystem) {
    return;
  }
  hardware.pciSystem = true;
  describeDevice(hardware.pci, rootPort, rootPort, 0);
  describeDevice(hardware.pci, switchUpstream, rootPort, 0);
  for (std::size_t port = 0; port < std::size(deviceNumbers); ++port) {
    describeDevice(hardware.pci, static_cast<PciPlace>(port1 + port), switchUpstream,
                   deviceNumbers[port]);
  }
  numberBuses(hardware.pci, rootPort, 1);
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
  if (hardware.running) {
    throw std::runtime_error("stays as it is while the instrument runs");
  }
  const PciPlace port = modulePorts[module];
  describeDevice(hardware.pci, shimUpstream, port, 0);
  describeDevice(hardware.pci, shimPort1, shimUpstream, 1);
  describeDevice(hardware.pci, shimPort5, shimUpstream, 5);
  numberBuses(hardware.pci, rootPort, 1);
}

Entries describePci(const Hardware& hardware) {
  Entries entries;
  if (hardware.pciSystem) {
    entries.push_back({"", "", ""});
  }
  for (std::size_t module = 0; module < std::size(modulePorts); ++module) {
    if (hardware.pci[shimUpstream].described &&
        hardware.pci[shimUpstream].above == modulePorts[module]) {
      entries.push_back({"", "shim", std::to_string(module)});
    }
  }
  return entries;
}

PciPlace placeOf(const std::string& name) {
  const std::size_t place = indexOf(pciPlaceNames, name);
  if (place == pciPlaceCount) {
    throw std::runtime_error("unknown group");
  }
  return static_cast<PciPlace>(place);
}

void beginDevice(Hardware& hardware, const std::string& instance) {
  if (!hardware.pci[placeOf(instance)].described) {
    throw std::runtime_error("no such device; describe [pci] and its shim first");
  }
}

constexpr Key<PciDevice> deviceKeys[] = {
    {"present", &PciDevice::absent, {"no", "yes"}},
    {"readable", &PciDevice::unreadable, {"no", "yes"}},
    {"link-status", &PciDevice::linkStatus},
    {"uncorrectable", &PciDevice::uncorrectable},
    {"correctable", &PciDevice::correctable},
};

// Of those that have a link below them.
constexpr Key<PciDevice> linkKeys[] = {
    {"link", &PciDevice::linkUp, {"up", "down"}},
    {"trained", &PciDevice::untrained, {"no", "yes"}},
};

// Of the downstream ports of a switch.
constexpr Key<PciDevice> portKeys[] = {
    {"loopback", &PciDevice::loopbackRefused, {"refused", "ok"}},
    {"prbs", &PciDevice::prbsOutOfSync, {"no-sync", "sync"}},
    {"prbs-errors-after", &PciDevice::prbsErrorsAfter, {"never"}},
    {"prbs-errors-per-second", &PciDevice::prbsErrorsPerSecond},
    {"prbs-errors-per-step", &PciDevice::prbsErrorsPerStep},
    {"prbs-sync-steps", &PciDevice::prbsSyncSteps},
};

/// Takes a range such as 5-11 or, without a last one, 5; false if it is none of settings.
bool takeRange(std::uint8_t (&range)[2], const std::string& first, const std::string& last) {
  range[0] = static_cast<std::uint8_t>(std::stoi(first));
  range[1] = last.empty() ? range[0] : static_cast<std::uint8_t>(std::stoi(last));
  return range[0] <= range[1] && range[1] <= TransmitterSettings::most;
}

/// Takes areas of settings such as "5-11/3-7, 2/12".
void setGoodSettings(PciDevice& device, const std::string& value) {
  static const std::string range = "([0-9]{1,2})(?:-([0-9]{1,2}))?";
  static const std::string area = range + "/" + range;
  static const auto& each = *new std::regex(area);
  static const auto& all = *new std::regex("any|" + area + "(, ?" + area + ")*");
  TransmitterSettings areas[goodSettingsCount];
  std::size_t used = 0;
  bool good = std::regex_match(value, all);
  for (std::sregex_iterator at(value.begin(), value.end(), each), end; good && at != end; ++at) {
    if (used == goodSettingsCount) {
      throw std::runtime_error("more than " + std::to_string(goodSettingsCount) + " areas");
    }
    good = takeRange(areas[used].driveLevel, at->str(1), at->str(2)) &&
           takeRange(areas[used].postCursor, at->str(3), at->str(4));
    ++used;
  }
  if (!good) {
    throw mustBe("any, or drive levels and post-cursors from 0 to 15 such as 5-11/3-7, 2/12",
                 value);
  }
  std::copy(areas, areas + used, device.prbsGood);
  device.prbsGoodUsed = used;
}

std::string goodSettings(const PciDevice& device) {
  const auto text = [](const std::uint8_t(&range)[2]) {
    return std::to_string(range[0]) + (range[0] == range[1] ? "" : "-" + std::to_string(range[1]));
  };
  std::string all;
  for (std::size_t index = 0; index < device.prbsGoodUsed; ++index) {
    const TransmitterSettings& area = device.prbsGood[index];
    all += (all.empty() ? "" : ", ") + text(area.driveLevel) + "/" + text(area.postCursor);
  }
  return all.empty() ? "any" : all;
}

std::uint32_t registerOffset(const std::string& digits) {
  const std::uint32_t offset = number("0x" + digits);
  if (offset % 4 != 0 || offset >= sizeof PciDevice::config) {
    throw std::runtime_error("not the offset of a 32-bit register, from 0 to ffc");
  }
  return offset;
}

void setRegister(std::uint8_t* bytes, PciPlace place, std::uint32_t offset, std::uint32_t bits) {
  const std::uint32_t madeUp = pci::madeUpBits(place, offset);
  if (madeUp == ~0U || (bits & madeUp) != 0) {
    throw std::runtime_error("no effect: bits " + hexText(madeUp) + " show what the hardware does");
  }
  std::memcpy(bytes + offset, &bits, sizeof bits);
}

/// Takes a key of some devices, which has no effect on the others.
template <std::size_t count>
void setKeyOf(bool hasIt, const Key<PciDevice> (&keys)[count], PciDevice& device,
              const std::string& key, const std::string& value) {
  if (!hasIt) {
    throw std::runtime_error("no effect on this device");
  }
  setKey(keys, device, key, value);
}

/// Where the kernel has found the device.
void setBus(const Hardware& hardware, PciDevice& device, std::uint32_t bus) {
  if (bus > 0xFF) {
    throw mustBe("a bus number from 0 to 0xff", hexText(bus));
  }
  if (hardware.running) {
    throw std::runtime_error("stays as it is while the instrument runs");
  }
  device.bus = static_cast<std::uint8_t>(bus);
}

void setDevice(Hardware& hardware, const std::string& instance, const std::string& key,
               const std::string& value) {
  const PciPlace place = placeOf(instance);
  PciDevice& device = hardware.pci[place];
  static const auto& perRegister = *new std::regex("(register|stuck)-([0-9a-f]{1,3})");
  std::smatch match;
  if (std::regex_match(key, match, perRegister)) {
    setRegister(match[1] == "register" ? device.config : device.stuck, place,
                registerOffset(match[2]), number(value));
  } else if (key == "class") {
    const std::uint32_t code = number(value);
    if (code > 0xFFFFFF) {
      throw mustBe("a class code from 0 to 0xffffff", value);
    }
    setClassCode(device, code);
  } else if (key == "bus") {
    setBus(hardware, device, number(value));
  } else if (key == "link-lost-after") {
    PciDevice scratch = device;
    setKeyOf(!pci::isSwitch(place), linkKeys, scratch, "link", "down");
    changeAt(hardware, value == "never" ? never : hardware.time + duration(value),
             {"pci " + instance, "link", "down"});
  } else if (key == "latch-uncorrectable" || key == "latch-correctable") {
    const bool isCorrectable = key == "latch-correctable";
    pci::latch(hardware, place, isCorrectable ? 0 : number(value),
               isCorrectable ? number(value) : 0);
  } else if (key == "prbs-since") {
    device.prbsSince = hardware.time - duration(value);
  } else if (hasKey(linkKeys, key)) {
    setKeyOf(!pci::isSwitch(place), linkKeys, device, key, value);
  } else if (key == "prbs-good") {
    if (!pci::isDownstreamPort(place)) {
      throw std::runtime_error("no effect on this device");
    }
    setGoodSettings(device, value);
  } else if (hasKey(portKeys, key)) {
    setKeyOf(pci::isDownstreamPort(place), portKeys, device, key, value);
  } else {
    setKey(deviceKeys, device, key, value);
  }
}

Entries describeDevices(const Hardware& hardware) {
  Entries entries;
  for (unsigned int index = 0; index < pciPlaceCount; ++index) {
    const auto place = static_cast<PciPlace>(index);
    const PciDevice& device = hardware.pci[place];
    const auto add = [&](const std::string& key, const std::string& value) {
      entries.push_back({pciPlaceNames[place], key, value});
    };
    if (!device.described) {
      continue;
    }
    add("bus", hexText(device.bus));
    describeKeys(deviceKeys, device, add);
    if (!pci::isSwitch(place)) {
      describeKeys(linkKeys, device, add);
    }
    if (pci::isDownstreamPort(place)) {
      describeKeys(portKeys, device, add);
      add("prbs-good", goodSettings(device));
      if (pci::prbsIsOn(hardware, place)) {
        add("prbs-since", secondsText(hardware.time - device.prbsSince));
      }
    }
    for (std::uint32_t offset = 0; offset < sizeof device.config; offset += 4) {
      const std::uint32_t madeUp = pci::madeUpBits(place, offset);
      if (madeUp != ~0U) {
        add("register-" + hexText(offset).substr(2),
            hexText(load<std::uint32_t>(device, offset) & ~madeUp));
        std::uint32_t stuck = 0;
        std::memcpy(&stuck, device.stuck + offset, sizeof stuck);
        add("stuck-" + hexText(offset).substr(2), hexText(stuck));
      }
    }
  }
  return entries;
}

/// What libpciaccess reads when it discovers a device; it wants the line ends.
void addDevice(const PciDevice& device, Tree& tree) {
  char name[32];
  std::snprintf(name, sizeof name, "/0000:%02x:%02x.0", device.bus, device.device);
  const std::string directory = std::string("/sys/bus/pci/devices") + name;
  const auto add = [&](const char* file, std::uint32_t value) {
    addFile(tree, directory + file, hexText(value) + "\n");
  };
  addFile(tree, directory + "/config", std::string(sizeof device.config, '\0'), 0644);
  add("/vendor", load<std::uint16_t>(device, PCI_VENDOR_ID));
  add("/device", load<std::uint16_t>(device, PCI_DEVICE_ID));
  char text[16];
  std::snprintf(text, sizeof text, "0x%06x\n",
                load<std::uint32_t>(device, PCI_CLASS_REVISION) >> 8);
  addFile(tree, directory + "/class", text);
  add("/revision", device.config[PCI_REVISION_ID]);
  add("/subsystem_vendor", 0);
  add("/subsystem_device", 0);
  addFile(tree, directory + "/irq", "0\n");
  addFile(tree, directory + "/resource", "");
}

void addFiles(const Hardware& hardware, Tree& tree) {
  if (!hardware.pciSystem) {
    return;
  }
  addDirectory(tree, "/sys/bus/pci/devices");
  for (const PciDevice& device : hardware.pci) {
    if (device.listed) {
      addDevice(device, tree);
    }
  }
}

constexpr Group groups[] = {{"pci", false, beginPci, setPci, describePci},
                            {"pci", true, beginDevice, setDevice, describeDevices}};

}  // namespace

const Part pciPart = {
    groups,
    std::size(groups),
    addFiles,
    {"/sys/bus/pci/devices/", pci::owns, pci::open, pci::store, sizeof PciDevice::config},
    pci::settle};

}  // namespace simulator
