// SPDX-License-Identifier: MIT
#include "simulator/parts/I2cDevices.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "simulator/parts/Values.h"

namespace simulator::i2c {

namespace {

constexpr std::size_t idProperty = 0;
constexpr std::size_t topProperty = 1;
constexpr std::size_t systemProperty = 2;

/// Below which a bus is that no multiplexer leads to.
std::string adapterOf(const Hardware& hardware, unsigned int bus) {
  for (const I2cBus& described : hardware.i2cBuses) {
    if (described.described && described.bus == bus && described.parent[0] != '\0') {
      return std::string("/sys/devices/") + described.parent;
    }
  }
  return "/sys/devices";
}

/// The bus behind a channel of the multiplexers on a bus.
std::optional<unsigned int> busBehind(const Hardware& hardware, unsigned int bus,
                                      unsigned long channel) {
  for (const I2cDevice& device : hardware.i2cDevices) {
    if (device.described && device.bus == bus && channel < std::size(device.channels) &&
        device.channels[channel].given) {
      return device.channels[channel].bus;
    }
  }
  return std::nullopt;
}

/// The channel of a multiplexer that leads to a bus. Requires one.
unsigned int channelTo(const I2cDevice& mux, unsigned int bus) {
  const auto* const channel =
      std::find_if(std::begin(mux.channels), std::end(mux.channels),
                   [bus](const auto& other) { return other.given && other.bus == bus; });
  return static_cast<unsigned int>(channel - mux.channels);
}

/// The bus that a module's expander is on.
std::optional<unsigned int> systemBus(const Hardware& hardware, const I2cDevice& module) {
  unsigned int bus = 0;
  unsigned int channel = 0;
  if (std::sscanf(module.properties[topProperty].text, "i2c-%u/%u", &bus, &channel) != 2) {
    return std::nullopt;
  }
  const std::optional<unsigned int> top = busBehind(hardware, bus, channel);
  const NodeProperty& system = module.properties[systemProperty];
  return !top || !system.given ? top
                               : busBehind(hardware, *top, std::strtoul(system.text, nullptr, 10));
}

}  // namespace

std::string nameOf(const I2cDevice& device) {
  char name[16];
  std::snprintf(name, sizeof name, "%u-%04x", device.bus, device.address);
  return name;
}

std::string busDirectory(const Hardware& hardware, unsigned int bus) {
  const I2cDevice* const mux = muxBefore(hardware, bus);
  return (mux == nullptr ? adapterOf(hardware, bus) : busDirectory(hardware, mux->bus)) + "/i2c-" +
         std::to_string(bus);
}

std::string directoryOf(const Hardware& hardware, const I2cDevice& device) {
  return busDirectory(hardware, device.bus) + "/" + nameOf(device);
}

std::vector<unsigned int> placeOf(const Hardware& hardware, const I2cDevice& device) {
  const I2cDevice* const mux = muxBefore(hardware, device.bus);
  std::vector<unsigned int> place = {device.bus};
  if (mux != nullptr) {
    place = placeOf(hardware, *mux);
    place.push_back(channelTo(*mux, device.bus));
  }
  place.push_back(device.address);
  return place;
}

bool isThere(const Hardware& hardware, const I2cDevice& device) {
  const I2cDevice* const mux = muxBefore(hardware, device.bus);
  return device.described && !device.absent && (mux == nullptr || isThere(hardware, *mux));
}

const I2cDevice* muxBefore(const Hardware& hardware, unsigned int bus) {
  for (const I2cDevice& device : hardware.i2cDevices) {
    for (const I2cDevice::Channel& channel : device.channels) {
      if (device.described && channel.given && channel.bus == bus) {
        return &device;
      }
    }
  }
  return nullptr;
}

bool canBeOpened(const Hardware& hardware, const std::string& path) {
  const std::string name = path.substr(path.rfind('/') + 1);
  return std::none_of(
      std::begin(hardware.i2cDevices), std::end(hardware.i2cDevices),
      [&](const I2cDevice& device) { return device.unopenable && nameOf(device) == name; });
}

int powerExpander(const Hardware& hardware, unsigned int module) {
  for (const I2cDevice& device : hardware.i2cDevices) {
    if (!device.described || std::to_string(module) != device.properties[idProperty].text) {
      continue;
    }
    const std::optional<unsigned int> bus = systemBus(hardware, device);
    for (std::size_t index = 0; index < i2cDeviceCount; ++index) {
      const I2cDevice& expander = hardware.i2cDevices[index];
      if (bus && expander.kind == I2cDevice::Kind::expander &&
          expander.gpio == I2cDevice::Gpio::chip && expander.bus == *bus) {
        return static_cast<int>(index);
      }
    }
  }
  return -1;
}

}  // namespace simulator::i2c
