// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <utility>

#include "simulator/parts/GpioLines.h"
#include "simulator/parts/I2cDevices.h"
#include "simulator/parts/Part.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

using Kind = I2cDevice::Kind;

// What a device of a kind is called, and the driver that takes one that answers.
struct KindOfDevice {
  const char* group;
  const char* name;
  const char* driver;
};

constexpr KindOfDevice kinds[] = {  // by I2cDevice::Kind
    {"i2c", "", nullptr},
    {"mux", "mux", "pca954x"},
    {"module", "module", nullptr},
    {"expander", "pca9536", "pca953x"}};

constexpr const char* gpioNames[] = {"none", "empty", "chip"};  // by I2cDevice::Gpio

constexpr Key<I2cDevice> deviceKeys[] = {
    {"present", &I2cDevice::absent, {"no", "yes"}},
};

constexpr Key<I2cDevice> moduleKeys[] = {
    {"openable", &I2cDevice::unopenable, {"no", "yes"}},
};

std::string busName(unsigned int bus) { return "i2c-" + std::to_string(bus); }

unsigned int busNumber(const std::string& name) {
  static const auto& pattern = *new std::regex("i2c-(0|[1-9][0-9]{0,3})");
  std::smatch match;
  if (!std::regex_match(name, match, pattern)) {
    throw mustBe("a bus such as i2c-9", name);
  }
  return number(match[1]);
}

/// The device of a name such as "0-0074", which is a new one at its first mention.
I2cDevice& device(Hardware& hardware, const std::string& name) {
  static const auto& pattern = *new std::regex("(0|[1-9][0-9]{0,3})-([0-9a-f]{4})");
  std::smatch match;
  if (!std::regex_match(name, match, pattern)) {
    throw std::runtime_error("not an I2C device such as 0-0074 (bus, address): \"" + name + "\"");
  }
  for (I2cDevice& device : hardware.i2cDevices) {
    if (!device.described) {
      device.described = true;
      device.bus = number(match[1]);
      device.address = number("0x" + match[2].str());
    }
    if (i2c::nameOf(device) == name) {
      return device;
    }
  }
  throw std::runtime_error("more than " + std::to_string(i2cDeviceCount) + " I2C devices");
}

/// Makes a device one of a kind.
template <Kind kind>
void begin(Hardware& hardware, const std::string& instance) {
  const auto isIt = [&](const I2cDevice& known) {
    return known.described && i2c::nameOf(known) == instance;
  };
  if (hardware.running &&
      std::none_of(std::begin(hardware.i2cDevices), std::end(hardware.i2cDevices), isIt)) {
    throw std::runtime_error("no such device; describe it, with present=no until it is there");
  }
  I2cDevice& result = device(hardware, instance);
  if (result.kind != Kind::plain && result.kind != kind) {
    throw std::runtime_error(std::string("is a [") +
                             kinds[static_cast<std::size_t>(result.kind)].group + "] already");
  }
  if (result.kind == kind) {
    return;
  }
  result.kind = kind;
  if (result.name[0] == '\0') {
    setText(result.name, sizeof result.name, kinds[static_cast<std::size_t>(kind)].name);
  }
  result.gpio = kind == Kind::expander ? I2cDevice::Gpio::chip : I2cDevice::Gpio::none;
}

void setDevice(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
               const std::string& value) {
  I2cDevice& result = device(hardware, key);
  setText(result.name, sizeof result.name, value);
  result.absent = result.kind == Kind::plain ? value.empty() : result.absent;
}

Entries describeDevices(const Hardware& hardware) {
  Entries entries;
  for (const I2cDevice& device : hardware.i2cDevices) {
    if (device.described) {
      const bool isPulled = device.kind == Kind::plain && device.absent;
      entries.push_back({"", i2c::nameOf(device), isPulled ? "" : device.name});
    }
  }
  return entries;
}

/// The entries of the devices of one kind, each with its group and what `add` says of it.
template <typename Add>
Entries describe(const Hardware& hardware, Kind kind, Add add) {
  Entries entries;
  for (const I2cDevice& device : hardware.i2cDevices) {
    if (device.described && device.kind == kind) {
      const std::string name = i2c::nameOf(device);
      entries.push_back({name, "", ""});
      add(device, [&](const std::string& key, const std::string& value) {
        entries.push_back({name, key, value});
      });
    }
  }
  return entries;
}

void setMux(Hardware& hardware, const std::string& instance, const std::string& key,
            const std::string& value) {
  I2cDevice& mux = device(hardware, instance);
  if (key == "present") {
    return setKey(deviceKeys, mux, key, value);
  }
  const std::uint32_t channel = number(key);
  if (channel >= std::size(mux.channels)) {
    throw std::runtime_error("not a channel number from 0 to " +
                             std::to_string(std::size(mux.channels) - 1));
  }
  const unsigned int bus = busNumber(value);
  const auto* const adapter = std::find_if(
      std::begin(hardware.i2cBuses), std::end(hardware.i2cBuses),
      [bus](const I2cBus& described) { return described.described && described.bus == bus; });
  if (adapter != std::end(hardware.i2cBuses)) {
    throw std::runtime_error(busName(bus) + " has an adapter of its own");
  }
  const I2cDevice::Channel before = std::exchange(mux.channels[channel], {});
  try {
    if (i2c::muxBefore(hardware, bus) != nullptr) {
      throw std::runtime_error(busName(bus) + " is behind another channel already");
    }
    // Up from the multiplexer's own bus.
    for (const I2cDevice* above = &mux; above != nullptr;
         above = i2c::muxBefore(hardware, above->bus)) {
      if (above->bus == bus) {
        throw std::runtime_error("leads back to " + busName(bus) + ", which it is behind");
      }
    }
  } catch (...) {
    mux.channels[channel] = before;
    throw;
  }
  mux.channels[channel] = {true, bus};
}

Entries describeMuxes(const Hardware& hardware) {
  return describe(hardware, Kind::multiplexer, [](const I2cDevice& mux, const auto& add) {
    for (std::size_t channel = 0; channel < std::size(mux.channels); ++channel) {
      if (mux.channels[channel].given) {
        add(std::to_string(channel), busName(mux.channels[channel].bus));
      }
    }
    describeKeys(deviceKeys, mux, add);
  });
}

/// The number that the kernel has given the first line of a chip: above those of the board.
int firstLine(const std::string& value) {
  constexpr std::uint32_t most = 0xFFFF - expanderLineCount;
  const std::uint32_t line = number(value);
  if (line < boardLineCount || line > most) {
    throw mustBe(
        "a line number from " + std::to_string(boardLineCount) + " to " + std::to_string(most),
        value);
  }
  return static_cast<int>(line);
}

void setExpander(Hardware& hardware, const std::string& instance, const std::string& key,
                 const std::string& value) {
  I2cDevice& expander = device(hardware, instance);
  const bool isLine = key.size() == 1 && key[0] >= '0' && key[0] < '0' + expanderLineCount;
  if (isLine) {
    gpio::setLine(expander.lines[key[0] - '0'], value);
  } else if (key == "base") {
    setText(expander.base, sizeof expander.base, value);
  } else if (key == "first-line") {
    const int line = firstLine(value);
    for (const I2cDevice& other : hardware.i2cDevices) {
      if (&other != &expander && other.firstLine != 0 &&
          std::abs(other.firstLine - line) < expanderLineCount) {
        throw std::runtime_error("lines that " + i2c::nameOf(other) + " has");
      }
    }
    expander.firstLine = line;
  } else if (key == "gpio") {
    const std::size_t state = indexOf(gpioNames, value);
    if (state == std::size(gpioNames)) {
      throw mustBe("chip, empty or none", value);
    }
    expander.gpio = static_cast<I2cDevice::Gpio>(state);
  } else {
    setKey(deviceKeys, expander, key, value);
  }
}

Entries describeExpanders(const Hardware& hardware) {
  return describe(hardware, Kind::expander, [](const I2cDevice& expander, const auto& add) {
    add("gpio", gpioNames[static_cast<std::size_t>(expander.gpio)]);
    if (expander.firstLine != 0) {
      add("first-line", std::to_string(expander.firstLine));
    }
    add("base", expander.base);
    for (int line = 0; line < expanderLineCount; ++line) {
      add(std::to_string(line), gpio::wordsOf(expander.lines[line]));
    }
    describeKeys(deviceKeys, expander, add);
  });
}

/// What a device-tree property holds: a text with its end or, for "<1 2>", cells of 32 bits.
std::string propertyContent(const std::string& text) {
  if (text.size() < 2 || text.front() != '<' || text.back() != '>') {
    return text + '\0';
  }
  std::string content;
  std::istringstream cells(text.substr(1, text.size() - 2));
  for (std::string cell; cells >> cell;) {
    const std::uint32_t value = number(cell);
    for (int shift = 24; shift >= 0; shift -= 8) {
      content += static_cast<char>(value >> shift & 0xFF);
    }
  }
  return content;
}

void setModule(Hardware& hardware, const std::string& instance, const std::string& key,
               const std::string& value) {
  I2cDevice& module = device(hardware, instance);
  const std::size_t index = indexOf(nodePropertyNames, key);
  if (index < std::size(nodePropertyNames)) {
    NodeProperty& property = module.properties[index];
    propertyContent(value);  // throws where the cells are no numbers
    property.given = true;
    setText(property.text, sizeof property.text, value);
  } else {
    key == "openable" ? setKey(moduleKeys, module, key, value)
                      : setKey(deviceKeys, module, key, value);
  }
}

Entries describeModules(const Hardware& hardware) {
  return describe(hardware, Kind::module, [](const I2cDevice& module, const auto& add) {
    for (std::size_t index = 0; index < std::size(nodePropertyNames); ++index) {
      if (module.properties[index].given) {
        add(nodePropertyNames[index], module.properties[index].text);
      }
    }
    describeKeys(moduleKeys, module, add);
    describeKeys(deviceKeys, module, add);
  });
}

/// The files of a bus or device of the subsystem, as the kernel and udev show them.
void addToSubsystem(const std::string& directory, const std::string& name, Tree& tree) {
  const std::string subsystem = "/sys/bus/i2c";
  addFile(tree, directory + "/name", name + "\n");
  addFile(tree, directory + "/uevent", "", 0644);
  addLink(tree, directory + "/subsystem", subsystem);
  addLink(tree, subsystem + "/devices" + directory.substr(directory.rfind('/')), directory);
}

void addDriver(const std::string& directory, const char* driver, Tree& tree) {
  const std::string driverDirectory = std::string("/sys/bus/i2c/drivers/") + driver;
  addLink(tree, directory + "/driver", driverDirectory);
  addLink(tree, driverDirectory + directory.substr(directory.rfind('/')), directory);
}

/// A bus, with those that lead to it.
void addBus(const std::string& directory, Tree& tree) {
  const bool isBus = directory.compare(directory.rfind('/'), 5, "/i2c-") == 0;
  if (isBus && tree.count(directory + "/name") == 0) {
    addBus(directory.substr(0, directory.rfind('/')), tree);
    addToSubsystem(directory, "simulated bus", tree);
  }
}

void addChannels(const I2cDevice& mux, const std::string& directory, Tree& tree) {
  for (std::size_t number = 0; number < std::size(mux.channels); ++number) {
    if (mux.channels[number].given) {
      const std::string bus =
          directory.substr(0, directory.rfind('/')) + "/" + busName(mux.channels[number].bus);
      addBus(bus, tree);
      addLink(tree, directory + "/channel-" + std::to_string(number), bus);
      addLink(tree, bus + "/mux_device", directory);
    }
  }
}

void addDevice(const Hardware& hardware, const I2cDevice& device, Tree& tree) {
  const std::string directory = i2c::directoryOf(hardware, device);
  addBus(directory.substr(0, directory.rfind('/')), tree);
  addToSubsystem(directory, device.name, tree);
  for (std::size_t index = 0; index < std::size(device.properties); ++index) {
    if (device.properties[index].given) {
      addFile(tree, directory + "/of_node/" + nodePropertyNames[index],
              propertyContent(device.properties[index].text));
    }
  }
  addChannels(device, directory, tree);
  const bool answers = device.kind != Kind::expander || device.gpio != I2cDevice::Gpio::none;
  const char* const driver = kinds[static_cast<std::size_t>(device.kind)].driver;
  if (driver != nullptr && answers) {
    addDriver(directory, driver, tree);
  }
  if (device.gpio == I2cDevice::Gpio::emptyDirectory) {
    addDirectory(tree, directory + "/gpio");
  }
  if (device.gpioBase != 0) {
    addFile(tree, directory + "/gpiochip0/dev", "254:0\n");
  }
}

void addFiles(const Hardware& hardware, Tree& tree) {
  for (const I2cBus& bus : hardware.i2cBuses) {
    if (bus.described) {
      addBus(i2c::busDirectory(hardware, bus.bus), tree);
    }
  }
  for (const I2cDevice& device : hardware.i2cDevices) {
    if (i2c::isThere(hardware, device)) {
      addDevice(hardware, device, tree);
    }
  }
}

bool hasChip(const Hardware& hardware, const I2cDevice& device) {
  return device.gpio == I2cDevice::Gpio::chip && i2c::isThere(hardware, device);
}

/// Whether a chip that begins with a line would have lines of another one.
bool isTaken(const Hardware& hardware, int base) {
  return std::any_of(
      std::begin(hardware.i2cDevices), std::end(hardware.i2cDevices), [&](const I2cDevice& device) {
        return device.gpioBase != 0 && std::abs(device.gpioBase - base) < expanderLineCount;
      });
}

/// The number of the first line of a new chip: the kernel assigns them at run time, from 512
/// upward.
int freeBase(const Hardware& hardware) {
  int base = 512;
  while (isTaken(hardware, base)) {
    base += expanderLineCount;
  }
  return base;
}

/// Numbers the lines of chips that have appeared and takes the numbers of those that are gone.
void numberChips(State& state) {
  std::map<std::vector<unsigned int>, I2cDevice*> appeared;  // as the kernel finds them
  for (I2cDevice& device : state.hardware.i2cDevices) {
    const bool has = hasChip(state.hardware, device);
    if (has && device.gpioBase == 0) {
      appeared[i2c::placeOf(state.hardware, device)] = &device;
    } else if (!has && device.gpioBase != 0) {
      device.gpioBase = 0;
      for (GpioLine& line : device.lines) {
        const GpioLine before = line;
        line = {};  // what the kernel had of it is gone
        line.condition = before.condition;
        line.level = before.level;
      }
    }
  }
  for (const auto& [place, device] : appeared) {
    if (device->firstLine != 0 && !isTaken(state.hardware, device->firstLine)) {
      device->gpioBase = device->firstLine;
    }
  }
  for (const auto& [place, device] : appeared) {
    if (device->gpioBase == 0) {
      device->gpioBase = freeBase(state.hardware);
    }
  }
}

/// The bus of a name such as "i2c-2", which is a new one at its first mention.
I2cBus& bus(Hardware& hardware, const std::string& name) {
  const unsigned int number = busNumber(name);
  if (i2c::muxBefore(hardware, number) != nullptr) {
    throw std::runtime_error("is behind a multiplexer, whose adapter it has");
  }
  for (I2cBus& bus : hardware.i2cBuses) {
    if (!bus.described || bus.bus == number) {
      bus.described = true;
      bus.bus = number;
      return bus;
    }
  }
  throw std::runtime_error("more than " + std::to_string(i2cBusCount) + " described buses");
}

void beginBus(Hardware& hardware, const std::string& instance) { bus(hardware, instance); }

void setBus(Hardware& hardware, const std::string& instance, const std::string& key,
            const std::string& value) {
  static const auto& pattern = *new std::regex("[A-Za-z0-9@_.,:-]+(/[A-Za-z0-9@_.,:-]+)*");
  if (key != "parent") {
    throw unknownKey();
  }
  if (!value.empty() &&
      (!std::regex_match(value, pattern) || value.find("..") != std::string::npos ||
       ("/" + value + "/").find("/./") != std::string::npos)) {
    throw mustBe("a directory below /sys/devices such as platform/30a40000.i2c", value);
  }
  I2cBus& result = bus(hardware, instance);
  setText(result.parent, sizeof result.parent, value);
}

Entries describeBuses(const Hardware& hardware) {
  Entries entries;
  for (const I2cBus& bus : hardware.i2cBuses) {
    if (bus.described) {
      entries.push_back({busName(bus.bus), "", ""});
      entries.push_back({busName(bus.bus), "parent", bus.parent});
    }
  }
  return entries;
}

constexpr Group groups[] = {
    {"bus", true, beginBus, setBus, describeBuses},
    {"mux", true, begin<Kind::multiplexer>, setMux, describeMuxes},
    {"expander", true, begin<Kind::expander>, setExpander, describeExpanders},
    {"module", true, begin<Kind::module>, setModule, describeModules},
    {"i2c", false, nullptr, setDevice, describeDevices}};

}  // namespace

const Part i2cPart = {groups, std::size(groups), addFiles, {}, numberChips};

}  // namespace simulator
