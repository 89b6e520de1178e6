// SPDX-License-Identifier: MIT
#include "modules/Udev_PCA9536.h"

#include <iostream>
#include <stdexcept>
#include <thread>

#include "internal/Directory.h"
#include "internal/FileStreams.h"
#include "internal/UdevI2cDevices.h"
#include "modules/ModuleI2CInfo.h"
#include "platform/SpbFPGA.h"

namespace {

using namespace std::chrono_literals;

struct GpioLinks {
  unsigned int moduleNumber;
  const char* powerEnable;
  const char* sequenceDone;
};

constexpr GpioLinks gpioLinks[] = {
    {1, "/sys/platform/gpio_module1_power_en", "/sys/platform/gpio_module1_seq_done"},
    {2, "/sys/platform/gpio_module2_power_en", "/sys/platform/gpio_module2_seq_done"},
    {4, "/sys/platform/gpio_2k_4k_a_power_en", "/sys/platform/gpio_2k_4k_a_seq_done"},
    {5, "/sys/platform/gpio_2k_4k_b_power_en", "/sys/platform/gpio_2k_4k_b_seq_done"},
};

constexpr std::chrono::milliseconds pollInterval = 20ms;
constexpr std::chrono::milliseconds powerOnTimeout = 5000ms;
constexpr std::chrono::milliseconds powerOffTimeout = 2000ms;

// A first reading of done awaits its confirmation.
bool doneSeenOnce = false;

std::string valueFile(const std::string& gpioLink) { return gpioLink + "/value"; }

void reportUnopened(const std::string& path) { std::cerr << "Can't open: " << path << std::endl; }

void writeText(const std::string& path, const std::string& text) {
  FileStream<std::ofstream> file(path);
  if (!file.get().is_open()) {
    reportUnopened(path);
    return;
  }
  file.get() << text;
}

std::string readLine(const std::string& path) {
  FileStream<std::ifstream> file(path);
  std::string line;
  if (!file.get().is_open()) {
    reportUnopened(path);
    return line;
  }
  std::getline(file.get(), line);
  return line;
}

}  // namespace

Udev_PCA9536::Udev_PCA9536(unsigned int number)
    : moduleNumber(number), is2k4k(false), softPowerOn(false) {
  for (const std::string& device : GetDevices()) {
    const ModuleI2CInfo info(moduleNumber);
    if (info.systemBus.empty() || device.find(info.systemBus) == std::string::npos) {
      continue;
    }
    const std::string gpio = FindSubdir(device, "gpio", true);
    if (gpio.empty()) {
      return;
    }
    gpioChipPath = FindSubdir(gpio, "gpiochip", false);
    if (gpioChipPath.empty()) {
      return;
    }
    is2k4k = info.is2k4k;
    SetupGpio();
    return;
  }
}

Udev_PCA9536::~Udev_PCA9536() = default;

std::string Udev_PCA9536::GetPath() { return gpioChipPath; }

bool Udev_PCA9536::isPowerOn() {
  return is2k4k ? softPowerOn : readLine(valueFile(powerEnablePath)) == "1";
}

void Udev_PCA9536::PowerOn() {
  if (is2k4k) {
    softPowerOn = true;
    return;
  }
  SpbFPGA fpga;
  writeText(valueFile(powerEnablePath), "1");
  fpga.TurnOnModuleClockSource(moduleNumber);
  WaitForPowerSequence(false, powerOnTimeout);
}

void Udev_PCA9536::PowerOff() {
  if (is2k4k) {
    softPowerOn = false;
    return;
  }
  SpbFPGA fpga;
  fpga.TurnOffModuleClockSource(moduleNumber);
  writeText(valueFile(powerEnablePath), "0");
  WaitForPowerSequence(true, powerOffTimeout);
}

std::vector<std::string> Udev_PCA9536::GetDevices() const {
  const UdevI2cDevices expanders("name", "pca9536");
  if (!expanders.available()) {
    throw std::runtime_error("Can't create udev");
  }
  std::vector<std::string> paths;
  expanders.any([&paths](const char* path) {
    paths.emplace_back(path);
    return false;
  });
  return paths;
}

std::vector<std::string> Udev_PCA9536::ReadDirectory(std::string path) const {
  return listDirectory(path);
}

std::string Udev_PCA9536::FindSubdir(std::string path, std::string name, bool exactMatch) const {
  return findEntry(path, name, exactMatch ? NameMatch::exact : NameMatch::substring);
}

void Udev_PCA9536::SetupGpio() {
  for (const GpioLinks& links : gpioLinks) {
    if (links.moduleNumber == moduleNumber) {
      powerEnablePath = links.powerEnable;
      sequenceDonePath = links.sequenceDone;
    }
  }
}

bool Udev_PCA9536::GpioExported() const {
  return FileStream<std::ofstream>(valueFile(powerEnablePath)).get().is_open();
}

bool Udev_PCA9536::PowerSequenceDone() const {
  return readLine(valueFile(sequenceDonePath)) == "0";
}

void Udev_PCA9536::WaitForPowerSequence(bool poweringOff, std::chrono::milliseconds timeout) {
  if (moduleNumber == 4 || moduleNumber == 5) {
    return;
  }
  for (std::chrono::milliseconds elapsed = 0ms; elapsed < timeout; elapsed += pollInterval) {
    const bool done = PowerSequenceDone();
    if (poweringOff) {
      if (!done) {
        return;
      }
    } else if (done && doneSeenOnce) {
      doneSeenOnce = false;
      return;
    } else {
      if (doneSeenOnce) {
        std::cerr << "Power on done debounce check failed " << std::endl;
      }
      doneSeenOnce = done;
    }
    std::this_thread::sleep_for(pollInterval);
  }
  std::cerr << (poweringOff ? "Power off sequence done timed out"
                            : "Power on sequence done timed out")
            << std::endl;
}
