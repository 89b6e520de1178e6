// SPDX-License-Identifier: MIT
#include "modules/ModuleI2CInfo.h"

#include <libudev.h>

#include <memory>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "internal/ForkSafeLock.h"
#include "internal/UdevI2cDevices.h"
#include "platform/I2CDev.h"

std::map<unsigned int, ModuleI2CInfo> ModuleI2CInfo::cache;
std::mutex ModuleI2CInfo::cacheLock;

namespace {

struct ReleaseDevice {
  void operator()(udev_device* device) const { udev_device_unref(device); }
};

// What the describing devices say. A later device replaces what it is read for.
struct Description {
  std::string top;
  std::string system;
  std::string solution;
  std::string marker2k4k;
  bool everMarked2k4k = false;

  bool isMarked2k4k() const { return marker2k4k == "1"; }
};

std::string property(udev_device* device, const char* attribute) {
  const char* value = udev_device_get_sysattr_value(device, attribute);
  return value != nullptr ? value : "";
}

void addDevice(Description& description, udev_device* device) {
  const char* marker = udev_device_get_sysattr_value(device, "of_node/2k4k");
  if (marker != nullptr) {
    description.marker2k4k = marker;
  }
  description.top = property(device, "of_node/top");
  if (description.isMarked2k4k()) {
    description.everMarked2k4k = true;
    return;
  }
  description.system = property(device, "of_node/system");
  description.solution = property(device, "of_node/solution");
}

Description describe(unsigned int moduleNumber) {
  const UdevI2cDevices devices("of_node/id", std::to_string(moduleNumber).c_str());
  if (!devices.available()) {
    throw std::runtime_error("Can't create udev");
  }
  Description description;
  devices.any([&](const char* path) {
    const std::unique_ptr<udev_device, ReleaseDevice> device(
        udev_device_new_from_syspath(devices.context(), path));
    if (device != nullptr) {
      addDevice(description, device.get());
    }
    return false;
  });
  return description;
}

std::vector<std::string> splitAtSlashes(const std::string& text) {
  std::vector<std::string> components;
  std::istringstream stream(text);
  for (std::string component; std::getline(stream, component, '/');) {
    components.push_back(component);
  }
  return components;
}

}  // namespace

// The lock lasts until the entry has been copied. Copying it straight into the new object is what
// keeps a construction from the cache cheap.
ModuleI2CInfo::ModuleI2CInfo(unsigned int moduleNumber)
    : ModuleI2CInfo(cacheEntry(moduleNumber, ForkSafeLock<cacheLock>())) {}

const ModuleI2CInfo& ModuleI2CInfo::cacheEntry(unsigned int moduleNumber,
                                               const std::lock_guard<std::mutex>& /*lock*/) {
  const auto cached = cache.find(moduleNumber);
  if (cached != cache.end()) {
    return cached->second;
  }
  return cache.emplace(moduleNumber, resolve(moduleNumber)).first->second;
}

ModuleI2CInfo ModuleI2CInfo::resolve(unsigned int moduleNumber) {
  const ForkSafeLock<cacheLock>::Holder holder;
  const Description description = describe(moduleNumber);
  const std::vector<std::string> components = splitAtSlashes(description.top);
  ModuleI2CInfo info;
  info.is2k4k = description.everMarked2k4k;
  if (components.size() == 1) {
    info.topBus = description.top;
    info.systemBus = description.system;
    info.solutionBus = description.solution;
  } else if (components.size() > 1) {
    info.topBus = components.front();
    for (std::size_t i = 1; i < components.size(); ++i) {
      info.topBus = I2CDev::FindI2CBusNameOfMuxChannel(info.topBus, std::stoi(components[i]));
    }
    if (description.isMarked2k4k()) {
      info.systemBus = info.topBus;
      info.solutionBus = info.topBus;
    } else {
      const int systemChannel = std::stoi(description.system);
      const int solutionChannel = std::stoi(description.solution);
      info.systemBus = I2CDev::FindI2CBusNameOfMuxChannel(info.topBus, systemChannel);
      info.solutionBus = I2CDev::FindI2CBusNameOfMuxChannel(info.topBus, solutionChannel);
    }
  }
  return info;
}

std::string ModuleI2CInfo::local1() const { return I2CDev::FindI2CBusNameOfMuxChannel("i2c-2", 3); }

std::string ModuleI2CInfo::local2() const { return I2CDev::FindI2CBusNameOfMuxChannel("i2c-2", 4); }

std::string ModuleI2CInfo::local3() const { return I2CDev::FindI2CBusNameOfMuxChannel("i2c-2", 5); }

std::string ModuleI2CInfo::local4() const { return I2CDev::FindI2CBusNameOfMuxChannel("i2c-2", 6); }
