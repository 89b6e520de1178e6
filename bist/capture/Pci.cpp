// SPDX-License-Identifier: MIT
#include <linux/pci_regs.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <optional>

#include "bist/capture/Capture.h"
#include "simulator/parts/PciRegisters.h"
#include "simulator/parts/Values.h"

namespace {

using simulator::hexText;
using simulator::PciPlace;

constexpr char directory[] = "/sys/bus/pci/devices/";

constexpr std::uint32_t bridgeClass = 0x0604;

/// A device that the kernel lists: what it knows of it, and its configuration space.
struct Device {
  std::string address;
  std::uint32_t bus = 0;
  std::uint32_t number = 0;
  std::uint32_t ids = 0;
  std::uint32_t classCode = 0;
  int error = 0;      ///< of reading its configuration space
  std::string bytes;  ///< of that; nothing where it cannot be reached
};

using Devices = std::map<std::string, Device>;

/// A number that an attribute holds; 0 where there is none.
std::uint32_t attribute(Capture& capture, const Device& device, const char* name) {
  const std::string text = capture.attribute(directory + device.address + "/" + name);
  return static_cast<std::uint32_t>(std::strtoul(text.c_str(), nullptr, 0));
}

bool isBridge(const Device& device) { return device.classCode >> 8 == bridgeClass; }

/// Whether a device answers. One that does not reads as all ones.
bool answers(const Device& device) {
  return device.error == 0 && device.bytes.size() >= 4 &&
         device.bytes.compare(0, 4, "\xFF\xFF\xFF\xFF") != 0;
}

std::uint32_t load(const Device& device, std::size_t offset, std::size_t size) {
  std::uint32_t value = 0;
  if (offset + size <= device.bytes.size()) {
    std::memcpy(&value, device.bytes.data() + offset, size);
  }
  return value;
}

Devices listAll(Capture& capture) {
  Devices all;
  for (const std::string& name : capture.namesIn(directory)) {
    Device device;
    device.address = name;
    unsigned int domain = 0;
    unsigned int function = 0;
    if (std::sscanf(device.address.c_str(), "%x:%x:%x.%x", &domain, &device.bus, &device.number,
                    &function) != 4) {
      continue;
    }
    device.ids = attribute(capture, device, "vendor") | attribute(capture, device, "device") << 16;
    device.classCode = attribute(capture, device, "class");
    all[device.address] = device;
  }
  return all;
}

/// Where a device of the fabric is: its number, and the buses that are below the device above.
struct Place {
  PciPlace place;
  PciPlace above;
  std::uint32_t number;
  std::uint32_t usualBus;  ///< where the one above cannot be asked
};

using simulator::rootPort;
using simulator::shimUpstream;
using simulator::switchUpstream;

constexpr Place mainPlaces[] = {
    {rootPort, rootPort, 0, 0},
    {switchUpstream, rootPort, 0, 1},
    {simulator::port1, switchUpstream, 1, 2},
    {simulator::port5, switchUpstream, 5, 2},
    {simulator::port7, switchUpstream, 7, 2},
    {simulator::port9, switchUpstream, 9, 2},
};

constexpr Place shimPorts[] = {
    {simulator::shimPort1, shimUpstream, 1, 0},
    {simulator::shimPort5, shimUpstream, 5, 0},
};

std::string groupOf(PciPlace place) {
  return std::string("pci ") + simulator::pciPlaceNames[place];
}

/// The fabric, from the root port down.
class Fabric {
 public:
  explicit Fabric(Capture& into) : capture(into), devices(listAll(into)) {}

  void read() {
    const auto root = devices.find("0000:00:00.0");
    // On a machine that is no instrument this is a host bridge, and none of it is touched.
    if (root != devices.end() && !isBridge(root->second)) {
      capture.notRead.push_back(
          "PCI devices: 0000:00:00.0 is no root port of an instrument (class " +
          hexText(root->second.classCode) + ")");
    }
    if (root == devices.end() ? devices.count("0000:01:00.0") == 0 : !isBridge(root->second)) {
      remarkOthers();
      return;
    }
    capture.foundSomething = true;
    capture.begin("pci");
    for (const Place& place : mainPlaces) {
      readPlace(place);
    }
    readShim();
    for (const auto& [place, device] : found) {
      describe(place, *device);
    }
    remarkOthers();
  }

 private:
  void remarkOthers() {
    for (const auto& [address, device] : devices) {
      if (!isFound(device)) {
        capture.remark(address + " (" + hexText(device.ids) + ", class " +
                       hexText(device.classCode) + ") is no device of a fabric that is described");
      }
    }
  }

  bool isFound(const Device& device) const {
    return std::any_of(found.begin(), found.end(),
                       [&](const auto& known) { return known.second == &device; });
  }

  Device* at(std::uint32_t bus, std::uint32_t number) {
    const auto device = std::find_if(devices.begin(), devices.end(), [&](const auto& known) {
      return known.first.compare(0, 5, "0000:") == 0 && known.second.bus == bus &&
             known.second.number == number && known.first.back() == '0';
    });
    return device == devices.end() ? nullptr : &device->second;
  }

  /// The bus below a bridge, where that can be asked and the bridge has one.
  std::optional<std::uint32_t> busBelow(PciPlace bridge) const {
    const auto device = found.find(bridge);
    if (device == found.end() || !answers(*device->second) || !isBridge(*device->second)) {
      return std::nullopt;
    }
    const std::uint32_t bus = load(*device->second, PCI_SECONDARY_BUS, 1);
    return bus > device->second->bus ? std::optional(bus) : std::nullopt;
  }

  /// Finds a device and reads its configuration space.
  void readPlace(const Place& place) {
    const std::uint32_t bus =
        place.place == rootPort ? 0 : busBelow(place.above).value_or(place.usualBus);
    // A program may have given the bridge above another number.
    Device* const known = at(bus, place.number);
    Device* const device = known != nullptr ? known : at(place.usualBus, place.number);
    if (device == nullptr) {
      capture.say(groupOf(place.place), "present", "no");
      if (place.place != rootPort && found.count(place.above) != 0 && !busBelow(place.above)) {
        capture.notRead.push_back(groupOf(place.place) + ": not found, and the bridge above it (" +
                                  groupOf(place.above) + ") does not say on which bus it is");
      }
      return;
    }
    found[place.place] = device;
    above[place.place] = place.above;
    device->error = readFile(directory + device->address + "/config", device->bytes);
    device->bytes.resize(std::min<std::size_t>(device->bytes.size(), simulator::configSize));
  }

  /// The shim switch of the one module that has one: a bridge below its port.
  void readShim() {
    for (std::uint32_t module = 0; module < std::size(simulator::modulePorts); ++module) {
      const PciPlace port = simulator::modulePorts[module];
      const std::optional<std::uint32_t> bus = busBelow(port);
      const Device* const shim = bus ? at(*bus, 0) : nullptr;
      if (shim != nullptr && isBridge(*shim) && !isFound(*shim) && found.count(shimUpstream) == 0) {
        capture.say("pci", "shim", std::to_string(module));
        readPlace({shimUpstream, port, 0, *bus});
        for (Place place : shimPorts) {
          place.usualBus = *bus + 1;
          readPlace(place);
        }
      }
    }
  }

  /// Whether a device below a bridge answers.
  bool answersBelow(PciPlace bridge) const {
    const std::optional<std::uint32_t> bus = busBelow(bridge);
    return bus && std::any_of(devices.begin(), devices.end(), [&](const auto& known) {
             return known.second.bus == *bus && isFound(known.second) && answers(known.second);
           });
  }

  void describe(PciPlace place, const Device& device) {
    const std::string group = groupOf(place);
    capture.say(group, "bus", hexText(device.bus));
    if (device.error != 0) {
      capture.cannotRead(device.address + " (" + group + ")", device.error);
      capture.say(group, "readable", "no");
    } else if (!answers(device)) {
      doesNotAnswer(place, device);
    }
    if (!answers(device)) {  // what the kernel has seen of it when it started
      capture.say(group, "register-0", hexText(device.ids));
      capture.say(group, "class", hexText(device.classCode));
      return;
    }
    if (device.bytes.size() < simulator::configSize) {
      capture.notRead.push_back(device.address + " (" + group + "): only " +
                                std::to_string(device.bytes.size()) +
                                " bytes of its configuration space");
    }
    describeLink(place, device);
    simulator::PciDevice& described = capture.hardware->pci[place];
    for (std::uint32_t offset = 0; offset + 4 <= device.bytes.size(); offset += 4) {
      const std::uint32_t madeUp = simulator::pci::madeUpBits(place, offset);
      simulator::pci::put(described, offset, load(device, offset, 4) & ~madeUp);
    }
    capture.spaces.push_back({place, device.bytes});
  }

  /// It is behind a link that is down, or has gone since the kernel started.
  void doesNotAnswer(PciPlace place, const Device& device) {
    const auto bridge = found.find(above[place]);
    const bool gone = place != rootPort && bridge != found.end() && answers(*bridge->second) &&
                      (simulator::pci::isSwitch(above[place]) || linkIsUp(above[place]));
    if (device.bytes.empty()) {
      capture.notRead.push_back(device.address + " (" + groupOf(place) +
                                "): its configuration space reads as empty");
      return;
    }
    capture.notRead.push_back(
        device.address + " (" + groupOf(place) + "): does not answer, " +
        (gone ? "gone since the kernel started" : "behind a link that is down"));
    if (gone) {
      capture.say("at 0", groupOf(place) + " present", "no");
    }
  }

  bool linkIsUp(PciPlace place) const {
    return (linkStatus(place, *found.at(place)).value_or(0) & PCI_EXP_LNKSTA_DLLLA) != 0 ||
           answersBelow(place);
  }

  /// The Link Status register; nothing where not so much of the configuration space can be read.
  static std::optional<std::uint32_t> linkStatus(PciPlace place, const Device& device) {
    const std::uint32_t offset = simulator::pci::linkStatusOffset(place);
    return device.bytes.size() < offset + 2
               ? std::nullopt
               : std::optional(load(device, offset, 2) & ~std::uint32_t{PCI_EXP_LNKSTA_LT});
  }

  /// The link below a root or downstream port, or the one above a switch.
  void describeLink(PciPlace place, const Device& device) {
    const std::optional<std::uint32_t> status = linkStatus(place, device);
    if (!status) {
      return;
    }
    if (simulator::pci::isSwitch(place)) {  // whose port above shows that it is active
      capture.say(groupOf(place), "link-status", hexText(*status | PCI_EXP_LNKSTA_DLLLA));
    } else if (linkIsUp(place)) {
      capture.say(groupOf(place), "link-status", hexText(*status));
    } else if (!moduleIsOff(place)) {
      capture.say(groupOf(place), "link", "down");
    }
  }

  /// Whether a port leads to a module without power, which is why its link is down.
  bool moduleIsOff(PciPlace place) const {
    const auto* const port =
        std::find(std::begin(simulator::modulePorts), std::end(simulator::modulePorts), place);
    if (port == std::end(simulator::modulePorts)) {
      return false;
    }
    const simulator::PowerSequence& power =
        capture.hardware->power[port - std::begin(simulator::modulePorts)];
    return power.present && (!power.enabled || power.onDelay < 0);
  }

  Capture& capture;
  Devices devices;
  std::map<PciPlace, Device*> found;
  std::map<PciPlace, PciPlace> above;
};

}  // namespace

void capturePci(Capture& capture) { Fabric(capture).read(); }
