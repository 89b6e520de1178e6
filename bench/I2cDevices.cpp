// SPDX-License-Identifier: MIT
#include "bench/I2cDevices.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

namespace {

const fs::path list = "/sys/bus/i2c/devices";
const fs::path bus = "/sys/devices/i2c-1";

std::string deviceName(int address) {
  char name[16];
  std::snprintf(name, sizeof name, "1-%04x", static_cast<unsigned int>(address));
  return name;
}

void addDevice(const std::string& name) {
  fs::create_directory(bus / name);
  std::ofstream(bus / name / "name") << "eeprom\n";
  std::ofstream uevent(bus / name / "uevent");
  fs::create_symlink("../../../bus/i2c", bus / name / "subsystem");
  fs::create_symlink("../../../devices/i2c-1/" + name, list / name);
}

}  // namespace

void setI2cDeviceCount(int count) {
  for (int address = 0; fs::exists(fs::symlink_status(list / deviceName(address))) || address < 64;
       ++address) {
    fs::remove(list / deviceName(address));
    fs::remove_all(bus / deviceName(address));
  }
  const auto others =
      static_cast<int>(std::distance(fs::directory_iterator(list), fs::directory_iterator()));
  for (int address = 0; address < count - others; ++address) {
    addDevice(deviceName(address));
  }
}
