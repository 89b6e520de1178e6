// SPDX-License-Identifier: MIT
#include "bench/Operation.h"
#include "bench/RawCalls.h"
#include "sysfs/SysfsUtil.h"

namespace {

// Beside the straps: a line that reads high, and one that may be driven.
const raw::GpioLine highLine(81);
const raw::GpioLine drivenLine(82);

constexpr char device[] = "/sys/devices/i2c-0/0-0041";
constexpr char gpio[] = "/sys/devices/i2c-0/0-0041/gpio";
constexpr char chip[] = "/sys/devices/i2c-0/0-0041/gpio/gpiochip504";
constexpr char base[] = "/sys/devices/i2c-0/0-0041/gpio/gpiochip504/base";  // "504\n"
constexpr char scratch[] = "/sys/scratch";

bool libraryReadsBytes() {
  char buffer[4];
  return SysfsUtil().readSysfs(base, buffer, sizeof buffer);
}

bool libraryReadsWord() {
  char buffer[4096];
  return SysfsUtil().readSysfs(base, buffer, 0);
}

bool floorReadsBytes() {
  char buffer[4];
  return raw::readFile(base, buffer, sizeof buffer) == sizeof buffer;
}

bool floorReadsPage() {
  char buffer[4096];
  return raw::readFile(base, buffer, sizeof buffer) == 4;
}

bool floorWrites(const char* path, const char* text) {
  raw::writeFile(path, text);
  return true;
}

bool floorDrivesLine() {
  raw::writeLine(drivenLine, "1");
  return true;
}

bool floorFindsGpioBase() {
  return raw::readDirectory(device) > 2 && raw::readDirectory(gpio) > 2 &&
         raw::readDirectory(chip) > 2 && floorReadsPage();
}

}  // namespace

std::vector<Operation> sysfsOperations() {
  return {
      {"readSysfs(path, buffer, 4)", libraryReadsBytes, floorReadsBytes},
      {"readSysfs(path, buffer, 0)", libraryReadsWord, floorReadsPage},
      {"readSysfs(path, success, true)",
       [] { return SysfsUtil().readSysfs(base, nullptr, true) == "504"; }, floorReadsPage},
      {"writeSysfs(path, data, 4)", [] { return SysfsUtil().writeSysfs(scratch, "504\n", 4); },
       [] { return floorWrites(scratch, "504\n"); }},
      {"writeSysfs(path, data, 0)", [] { return SysfsUtil().writeSysfs(scratch, "504\n", 0); },
       [] { return floorWrites(scratch, "504\n"); }},
      {"ReadDirectory", [] { return SysfsUtil().ReadDirectory(device).size() > 2; },
       [] { return raw::readDirectory(device) > 2; }, 1.06},
      {"FindFile(path, name, true)",
       [] { return SysfsUtil().FindFile(device, "gpio", true) == gpio; },
       [] { return raw::readDirectory(device) > 2; }},
      {"FindFile(path, name, false)",
       [] { return SysfsUtil().FindFile(gpio, "chip", false) == chip; },
       [] { return raw::readDirectory(gpio) > 2; }},
      {"FindGpioBase", [] { return SysfsUtil().FindGpioBase(device) == 504; }, floorFindsGpioBase,
       1.22},
      {"exportGpio", [] { return SysfsUtil().exportGpio("82"); },
       [] { return floorWrites("/sys/class/gpio/export", "82"); }},
      {"setGpioDirectionOutput", [] { return SysfsUtil().setGpioDirectionOutput("82"); },
       [] { return floorWrites("/sys/class/gpio/gpio82/direction", "out"); }},
      {"setGpioDirectionInput", [] { return SysfsUtil().setGpioDirectionInput("82"); },
       [] { return floorWrites("/sys/class/gpio/gpio82/direction", "in"); }},
      {"readGpioValue(char const*, bool*)",
       [] { return SysfsUtil().readGpioValue("81", nullptr) == "1"; },
       [] { return raw::readLine(highLine); }},
      {"readGpioValue(int)", [] { return SysfsUtil().readGpioValue(81); },
       [] { return raw::readLine(highLine); }, 1.15},
      {"setGpioValue(char const*, char const*)", [] { return SysfsUtil().setGpioValue("82", "1"); },
       floorDrivesLine},
      {"setGpioValue(int, bool)", [] { return SysfsUtil().setGpioValue(82, true); },
       floorDrivesLine, 1.08},
  };
}
