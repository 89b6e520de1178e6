// SPDX-License-Identifier: MIT
#include "sysfs/SysfsUtil.h"

#include <cstdio>
#include <sstream>

#include "internal/Directory.h"
#include "internal/FileStreams.h"

namespace {

std::string linePath(char const* gpio, char const* attribute) {
  return std::string("/sys/class/gpio/gpio") + gpio + attribute;
}

void report(bool* success, bool value) {
  if (success != nullptr) {
    *success = value;
  }
}

}  // namespace

SysfsUtil::SysfsUtil() = default;

SysfsUtil::~SysfsUtil() = default;

bool SysfsUtil::readSysfs(std::string path, char* buffer, int length) {
  if (length < 0) {
    return false;
  }
  const StdioFile file(path, "r");
  if (file.get() == nullptr) {
    return false;
  }
  if (length == 0) {
    static_assert(attributeSize == 4096, "the scan's width is one less");
    return std::fscanf(file.get(), "%4095s", buffer) >= 0;
  }
  const auto size = static_cast<std::size_t>(length);
  return std::fread(buffer, 1, size, file.get()) == size;
}

std::string SysfsUtil::readSysfs(std::string path, bool* success, bool stripLastChar) {
  FileStream<std::ifstream> file(path);
  report(success, file.get().good());
  if (!file.get().good()) {
    return "";
  }
  std::stringbuf content;
  file.get() >> std::noskipws >> &content;
  std::string text = content.str();
  if (stripLastChar && !text.empty()) {
    text.pop_back();
  }
  return text;
}

bool SysfsUtil::writeSysfs(std::string path, char const* data, int length) {
  if (length < 0) {
    return false;
  }
  const StdioFile file(path, "w");
  if (file.get() == nullptr) {
    return false;
  }
  if (length == 0) {
    return std::fprintf(file.get(), "%s", data) >= 0;
  }
  const auto size = static_cast<std::size_t>(length);
  return std::fwrite(data, 1, size, file.get()) == size;
}

std::vector<std::string> SysfsUtil::ReadDirectory(std::string path) { return listDirectory(path); }

std::string SysfsUtil::FindFile(std::string path, std::string name, bool exactMatch) {
  return findEntry(path, name, exactMatch ? NameMatch::exact : NameMatch::substring);
}

int SysfsUtil::FindGpioBase(std::string path) {
  const std::string gpio = FindFile(path, "gpio", true);
  if (gpio.empty()) {
    return -1;
  }
  const std::string chip = FindFile(gpio, "gpiochip", false);
  if (chip.empty()) {
    return -1;
  }
  const std::string base = FindFile(chip, "base", false);
  if (base.empty()) {
    return -1;
  }
  bool success = false;
  const std::string text = readSysfs(base, &success, true);
  int number = -1;
  return success && std::sscanf(text.c_str(), "%d", &number) == 1 ? number : -1;
}

bool SysfsUtil::exportGpio(char const* gpio) {
  return writeSysfs("/sys/class/gpio/export", gpio, 0);
}

bool SysfsUtil::setGpioDirectionOutput(char const* gpio) {
  return writeSysfs(linePath(gpio, "/direction"), "out", 0);
}

bool SysfsUtil::setGpioDirectionInput(char const* gpio) {
  return writeSysfs(linePath(gpio, "/direction"), "in", 0);
}

std::string SysfsUtil::readGpioValue(char const* gpio, bool* success) {
  if (!exportGpio(gpio) || !setGpioDirectionInput(gpio)) {
    report(success, false);
    return "";
  }
  return readSysfs(linePath(gpio, "/value"), success, true);
}

bool SysfsUtil::setGpioValue(char const* gpio, char const* value) {
  if (!exportGpio(gpio) || !setGpioDirectionOutput(gpio)) {
    return false;
  }
  return writeSysfs(linePath(gpio, "/value"), value, 0);
}

bool SysfsUtil::readGpioValue(int gpio) {
  bool success = false;
  return readGpioValue(std::to_string(gpio).c_str(), &success) == "1";
}

bool SysfsUtil::setGpioValue(int gpio, bool value) {
  return setGpioValue(std::to_string(gpio).c_str(), value ? "1" : "0");
}
