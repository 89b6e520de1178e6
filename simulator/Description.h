#pragma once

#include <map>
#include <stdexcept>
#include <string>

#include "simulator/State.h"

namespace simulator {

/// A simulated instrument as its description file gives it.
struct Description {
  GpioLine lines[gpioLineCount] = {};
  bool faults[faultCount] = {};

  PciDevice pci[pciPlaceCount] = {};
  bool pciSystem = false;  ///< there is a PCI bus at all

  PowerSequence power[moduleCount] = {};

  /// An I2C device.
  struct I2cDevice {
    std::string name;                               ///< its attribute "name"
    std::map<std::string, std::string> properties;  ///< of its device-tree node
    std::map<int, std::string> channels;            ///< of a multiplexer: the bus behind each
    enum class Gpio { none, emptyDirectory, chip } gpio = Gpio::none;
    bool openable = true;  ///< libudev can open it
  };

  /// By "<bus>-<address>", such as "0-0074".
  std::map<std::string, I2cDevice> i2cDevices;
};

/// A description that cannot be read. The text is one line with the file, group and key.
class DescriptionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a description file. Throws DescriptionError.
Description readDescription(const std::string& file);

/// Reads a description from a text; `name` stands for the file in error texts.
Description parseDescription(const std::string& text, const std::string& name = "description");

}  // namespace simulator
