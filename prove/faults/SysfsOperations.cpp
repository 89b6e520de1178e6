// SPDX-License-Identifier: MIT
#include <memory>

#include "prove/faults/FaultSweep.h"
#include "sysfs/SysfsUtil.h"

namespace {

constexpr char value[] = "/sys/class/gpio/gpio127/value";
constexpr char expander[] = "/sys/bus/i2c/devices/30-0041";

std::string text(bool result) { return result ? "true" : "false"; }

/// A call of a SysfsUtil object.
std::function<Call()> on(std::string (*call)(SysfsUtil& sysfs)) {
  return [call] {
    const auto sysfs = std::make_shared<SysfsUtil>();
    sysfs->exportGpio("127");
    return [sysfs, call] { return call(*sysfs); };
  };
}

std::string joined(const std::vector<std::string>& names) {
  std::string all;
  for (const std::string& name : names) {
    all += name + " ";
  }
  return all;
}

}  // namespace

std::vector<Operation> sysfsOperations() {
  return {
      {"SysfsUtil::readSysfs into memory",
       "true 0\n",
       "true 0\n|false",
       0,
       on([](SysfsUtil& sysfs) {
         char buffer[8] = {};
         const bool success = sysfs.readSysfs(value, buffer, 2);
         return text(success) + (success ? std::string(" ") + buffer : "");
       }),
       {"fopen|fread", "false"}},
      {"SysfsUtil::readSysfs",
       "true 0",
       "true 0?|false ",
       0,
       on([](SysfsUtil& sysfs) {
         bool success = true;
         const std::string read = sysfs.readSysfs(value, &success, true);
         return text(success) + " " + read;
       }),
       {"fopen|fopen64", "false "}},
      {"SysfsUtil::writeSysfs",
       "true",
       "true|false",
       0,
       on([](SysfsUtil& sysfs) {
         return text(sysfs.writeSysfs("/sys/class/gpio/gpio127/direction", "in", 2));
       }),
       {"fopen|fwrite", "false"}},
      {"SysfsUtil::exportGpio",
       "true",
       "true|false",
       0,
       on([](SysfsUtil& sysfs) { return text(sysfs.exportGpio("133")); }),
       {"fopen", "false"}},
      {"SysfsUtil::readGpioValue",
       "true 0",
       "true 0?|false ",
       0,
       on([](SysfsUtil& sysfs) {
         bool success = true;
         const std::string read = sysfs.readGpioValue("133", &success);
         return text(success) + " " + read;
       }),
       {"fopen.*", "false "}},
      {"SysfsUtil::readGpioValue by number", "false", "false", 0,
       on([](SysfsUtil& sysfs) { return text(sysfs.readGpioValue(133)); })},
      {"SysfsUtil::setGpioValue",
       "true",
       "true|false",
       0,
       on([](SysfsUtil& sysfs) { return text(sysfs.setGpioValue("134", "1")); }),
       {"fopen", "false"}},
      {"SysfsUtil::setGpioValue by number", "true", "true|false", 0,
       on([](SysfsUtil& sysfs) { return text(sysfs.setGpioValue(134, true)); })},
      {"SysfsUtil::setGpioDirectionOutput",
       "false",
       "true|false",
       0,
       on([](SysfsUtil& sysfs) { return text(sysfs.setGpioDirectionOutput("134")); }),
       {"fopen", "false"}},
      {"SysfsUtil::setGpioDirectionInput",
       "false",
       "true|false",
       0,
       on([](SysfsUtil& sysfs) { return text(sysfs.setGpioDirectionInput("134")); }),
       {"fopen", "false"}},
      {"SysfsUtil::ReadDirectory",
       ". .. uevent subsystem name gpiochip0 gpio driver ",
       "([a-z0-9.]+ )*",
       0,
       on([](SysfsUtil& sysfs) { return joined(sysfs.ReadDirectory(expander)); }),
       {"opendir", ""}},
      {"SysfsUtil::FindFile",
       "/sys/bus/i2c/devices/30-0041/gpio",
       "(/sys/bus/i2c/devices/30-0041/gpio)?",
       0,
       on([](SysfsUtil& sysfs) { return sysfs.FindFile(expander, "gpio", true); }),
       {"opendir", ""}},
      {"SysfsUtil::FindGpioBase",
       "516",
       "516|-1",
       0,
       on([](SysfsUtil& sysfs) { return std::to_string(sysfs.FindGpioBase(expander)); }),
       {"opendir|fopen.*", "-1"}},
  };
}
