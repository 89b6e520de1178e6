// SPDX-License-Identifier: MIT
#include <libudev.h>

#include "bench/Operation.h"
#include "bench/RawCalls.h"
#include "modules/BackplaneInterface.h"
#include "modules/ModuleI2CInfo.h"
#include "modules/Udev_PCA9536.h"

namespace {

// As in the tree of bench/run.sh.
constexpr unsigned int module = 2;
constexpr int noSlot = -1;
constexpr char expander[] = "/sys/devices/i2c-0/0-0041";
constexpr char expanderGpio[] = "/sys/devices/i2c-0/0-0041/gpio";

/// The devices of udev's subsystem "i2c" with an attribute's value; opens the first for its
/// module properties when asked to.
int floorLists(const char* attribute, const char* value, bool properties) {
  udev* context = udev_new();
  udev_enumerate* enumeration = udev_enumerate_new(context);
  udev_enumerate_add_match_subsystem(enumeration, "i2c");
  udev_enumerate_add_match_sysattr(enumeration, attribute, value);
  udev_enumerate_scan_devices(enumeration);
  int devices = 0;
  for (udev_list_entry* entry = udev_enumerate_get_list_entry(enumeration); entry != nullptr;
       entry = udev_list_entry_get_next(entry)) {
    ++devices;
    if (properties) {
      udev_device* device = udev_device_new_from_syspath(context, udev_list_entry_get_name(entry));
      for (const char* name :
           {"of_node/2k4k", "of_node/top", "of_node/system", "of_node/solution"}) {
        udev_device_get_sysattr_value(device, name);
      }
      udev_device_unref(device);
    }
  }
  udev_enumerate_unref(enumeration);
  udev_unref(context);
  return devices;
}

bool libraryResolves() {
  {
    const std::lock_guard<std::mutex> lock(ModuleI2CInfo::cacheLock);
    ModuleI2CInfo::cache.clear();
  }
  return ModuleI2CInfo(module).systemBus == "i2c-0";
}

bool floorResolves() { return floorLists("of_node/id", "2", true) == 1; }

bool floorCopies() {
  const std::lock_guard<std::mutex> lock(ModuleI2CInfo::cacheLock);
  const auto entry = ModuleI2CInfo::cache.find(module);
  const ModuleI2CInfo copy = entry->second;
  return copy.systemBus.size() == 5;
}

bool floorFindsExpander() {
  return floorLists("name", "pca9536", false) == 1 && raw::readDirectory(expander) > 2 &&
         raw::readDirectory(expanderGpio) > 2;
}

bool floorSetsUpBackplane() {
  for (int slot = 0; slot < 6; ++slot) {
    if (floorLists("name", "pca9536", false) != 1) {
      return false;
    }
  }
  return raw::readDirectory(expander) > 2 && raw::readDirectory(expanderGpio) > 2;
}

BackplaneInterface& backplane() {
  static BackplaneInterface object;
  return object;
}

const raw::GpioLine lines[] = {raw::GpioLine(167), raw::GpioLine(168), raw::GpioLine(169),
                               raw::GpioLine(170), raw::GpioLine(171), raw::GpioLine(135),
                               raw::GpioLine(133)};

bool floorTestsPresence() {
  bool high = false;
  for (const raw::GpioLine& line : lines) {
    high = raw::readLine(line);
  }
  return !high;
}

}  // namespace

std::vector<Operation> moduleOperations() {
  return {
      {"ModuleI2CInfo, resolved", libraryResolves, floorResolves, 1.02},
      {"ModuleI2CInfo, cached", [] { return ModuleI2CInfo(module).systemBus.size() == 5; },
       floorCopies, 1.15},
      {"Udev_PCA9536(2)", [] { return !Udev_PCA9536(module).GetPath().empty(); },
       floorFindsExpander, 1.02},
      {"isModulePresent(2)", [] { return backplane().isModulePresent(2); }, floorTestsPresence,
       1.15},
  };
}

std::vector<Operation> backplaneOperations() {
  return {{"BackplaneInterface()", [] { return !BackplaneInterface().isModuleOn(noSlot); },
           floorSetsUpBackplane, 1.02}};
}
