// SPDX-License-Identifier: MIT
#include <algorithm>
#include <map>
#include <regex>

#include "simulator/parts/I2cDevices.h"
#include "simulator/parts/Part.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

namespace fs = std::filesystem;

std::string busName(unsigned int bus) { return "i2c-" + std::to_string(bus); }

std::string deviceName(const I2cDevice& device) {
  char name[16];
  std::snprintf(name, sizeof name, "%u-%04x", device.bus, device.address);
  return name;
}

/// The device of a name such as "0-0074", which is a new one at its first mention.
I2cDevice& device(Hardware& hardware, const std::string& name) {
  static const std::regex pattern("(0|[1-9][0-9]{0,3})-([0-9a-f]{4})");
  std::smatch match;
  if (!std::regex_match(name, match, pattern)) {
    throw std::runtime_error("not an I2C device such as 0-0074 (bus, address): \"" + name + "\"");
  }
  for (I2cDevice& device : hardware.i2cDevices) {
    if (!device.present) {
      device.present = true;
      device.bus = number(match[1]);
      device.address = number("0x" + match[2].str());
    }
    if (deviceName(device) == name) {
      return device;
    }
  }
  throw std::runtime_error("more than " + std::to_string(i2cDeviceCount) + " I2C devices");
}

I2cDevice& namedDevice(Hardware& hardware, const std::string& place, const char* name) {
  I2cDevice& result = device(hardware, place);
  setText(result.name, sizeof result.name, name);
  return result;
}

void setDevice(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
               const std::string& value) {
  namedDevice(hardware, key, value.c_str());
}

void beginMux(Hardware& hardware, const std::string& instance) {
  namedDevice(hardware, instance, "mux");
}

/// The multiplexer that has a bus behind one of its channels; null for none.
const I2cDevice* muxBefore(const Hardware& hardware, unsigned int bus) {
  for (const I2cDevice& device : hardware.i2cDevices) {
    for (const I2cDevice::Channel& channel : device.channels) {
      if (channel.given && channel.bus == bus) {
        return &device;
      }
    }
  }
  return nullptr;
}

void setMux(Hardware& hardware, const std::string& instance, const std::string& key,
            const std::string& value) {
  static const std::regex pattern("i2c-(0|[1-9][0-9]{0,3})");
  std::smatch match;
  if (!std::regex_match(value, match, pattern)) {
    throw mustBe("a bus such as i2c-9", value);
  }
  I2cDevice& mux = device(hardware, instance);
  const std::uint32_t channel = number(key);
  if (channel >= std::size(mux.channels)) {
    throw std::runtime_error("not a channel number from 0 to " +
                             std::to_string(std::size(mux.channels) - 1));
  }
  const std::uint32_t bus = number(match[1]);
  if (muxBefore(hardware, bus) != nullptr) {
    throw std::runtime_error(busName(bus) + " is behind another channel already");
  }
  // Up from the multiplexer's own bus.
  for (const I2cDevice* above = &mux; above != nullptr; above = muxBefore(hardware, above->bus)) {
    if (above->bus == bus) {
      throw std::runtime_error("leads back to " + busName(bus) + ", which it is behind");
    }
  }
  mux.channels[channel] = {true, bus};
}

void beginExpander(Hardware& hardware, const std::string& instance) {
  namedDevice(hardware, instance, "pca9536").gpio = I2cDevice::Gpio::chip;
}

void setExpander(Hardware& hardware, const std::string& instance, const std::string& key,
                 const std::string& value) {
  constexpr const char* states[] = {"none", "empty", "chip"};  // by I2cDevice::Gpio
  const std::size_t state = indexOf(states, value);
  if (key != "gpio") {
    throw unknownKey();
  }
  if (state == std::size(states)) {
    throw mustBe("chip, empty or none", value);
  }
  device(hardware, instance).gpio = static_cast<I2cDevice::Gpio>(state);
}

void beginModule(Hardware& hardware, const std::string& instance) {
  namedDevice(hardware, instance, "module");
}

void setModule(Hardware& hardware, const std::string& instance, const std::string& key,
               const std::string& value) {
  I2cDevice& module = device(hardware, instance);
  const std::size_t index = indexOf(nodePropertyNames, key);
  if (index < std::size(nodePropertyNames)) {
    NodeProperty& property = module.properties[index];
    property.given = true;
    setText(property.text, sizeof property.text, value);
  } else if (key == "openable") {
    module.unopenable = !choice(value, "yes", "no");
  } else {
    throw unknownKey();
  }
}

/// The buses and devices as the kernel and udev show them.
class Tree {
 public:
  Tree(const Hardware& hardware, fs::path rootDirectory) : root(std::move(rootDirectory)) {
    for (const I2cDevice& device : hardware.i2cDevices) {
      if (device.present) {
        devices[deviceName(device)] = &device;
      }
    }
  }

  void create() {
    for (const auto& [name, device] : devices) {
      for (const I2cDevice::Channel& channel : device->channels) {
        if (channel.given) {
          multiplexers[channel.bus] = device;
        }
      }
    }
    for (const auto& [name, device] : devices) {
      createDevice(name, *device);
    }
  }

 private:
  /// A device of the subsystem below another, or below /sys/devices.
  fs::path add(const std::string& name, const fs::path& parent, const std::string& text) {
    fs::path directory = parent / name;
    createFile(directory / "name", text + "\n");
    createFile(directory / "uevent");
    const fs::path subsystem = root / "sys/bus/i2c";
    fs::create_directories(subsystem / "devices");
    fs::create_symlink(fs::relative(subsystem, directory), directory / "subsystem");
    fs::create_symlink(fs::relative(directory, subsystem / "devices"),
                       subsystem / "devices" / name);
    return directory;
  }

  /// The directory of a bus, which is created if it is not there yet. A bus behind a multiplexer
  /// lies below the multiplexer's bus.
  fs::path bus(unsigned int number) {
    if (buses.count(number) == 0) {
      const auto mux = multiplexers.find(number);
      const fs::path parent =
          mux == multiplexers.end() ? root / "sys/devices" : bus(mux->second->bus);
      buses[number] = add(busName(number), parent, "simulated bus");
    }
    return buses[number];
  }

  void createDevice(const std::string& name, const I2cDevice& device) {
    const fs::path directory = add(name, bus(device.bus), device.name);
    for (std::size_t index = 0; index < std::size(device.properties); ++index) {
      if (device.properties[index].given) {
        createFile(directory / "of_node" / nodePropertyNames[index], device.properties[index].text);
      }
    }
    for (std::size_t number = 0; number < std::size(device.channels); ++number) {
      if (device.channels[number].given) {
        const unsigned int behind = device.channels[number].bus;
        fs::create_symlink("../" + busName(behind),
                           directory / ("channel-" + std::to_string(number)));
        fs::create_symlink("../" + name, bus(behind) / "mux_device");
      }
    }
    createGpio(directory, device.gpio);
  }

  void createGpio(const fs::path& directory, I2cDevice::Gpio gpio) {
    if (gpio == I2cDevice::Gpio::none) {
      return;
    }
    fs::create_directories(directory / "gpio");
    if (gpio == I2cDevice::Gpio::chip) {
      // The kernel assigns the numbers at run time, from 512 upward.
      const std::string base = std::to_string(nextGpioBase);
      nextGpioBase += linesOfAnExpander;
      createFile(directory / "gpio" / ("gpiochip" + base) / "base", base + "\n");
      createFile(directory / "gpiochip0" / "dev", "254:0\n");
    }
  }

  static constexpr int linesOfAnExpander = 4;

  fs::path root;
  std::map<std::string, const I2cDevice*> devices;
  std::map<unsigned int, const I2cDevice*> multiplexers;  // by the bus behind
  std::map<unsigned int, fs::path> buses;
  int nextGpioBase = 512;
};

void createTree(const Hardware& hardware, const fs::path& root) { Tree(hardware, root).create(); }

constexpr Group groups[] = {{"i2c", false, nullptr, setDevice},
                            {"mux", true, beginMux, setMux},
                            {"expander", true, beginExpander, setExpander},
                            {"module", true, beginModule, setModule}};

}  // namespace

bool i2c::canBeOpened(const Hardware& hardware, const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return std::none_of(
      std::begin(hardware.i2cDevices), std::end(hardware.i2cDevices),
      [&](const I2cDevice& device) { return device.unopenable && deviceName(device) == name; });
}

const Part i2cPart = {groups, std::size(groups), createTree, {}};

}  // namespace simulator
