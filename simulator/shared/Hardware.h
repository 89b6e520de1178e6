// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

/// The hardware of an instrument as plain data: what a description fills in, and what all processes
/// on the instrument share and change. Times are microseconds.
namespace simulator {

/// A line of the board's GPIO chip.
struct GpioLine {
  enum class Condition : std::uint8_t {
    working,
    missing,      ///< the kernel knows no line of this number
    noDirection,  ///< exported without a direction file
    noValue,      ///< the value file cannot be opened
  };
  static constexpr std::size_t conditionCount = 4;
  Condition condition;
  bool level;  ///< what the hardware outside drives on the line
  bool exported;
  bool output;
  bool driven;  ///< the level of an output
};

constexpr int gpioLineCount = 256;

/// Texts of an I2C device are attributes, which hold no more than this and an end.
constexpr std::size_t textSize = 256;

/// A property of a device-tree node.
struct NodeProperty {
  bool given;
  char text[textSize];
};

constexpr const char* nodePropertyNames[] = {"id", "top", "system", "solution", "2k4k"};

/// An I2C device, by its bus and address.
struct I2cDevice {
  struct Channel {
    bool given;
    unsigned int bus;  ///< behind the channel
  };
  bool present;
  bool unopenable;  ///< libudev lists it but cannot open it
  unsigned int bus;
  unsigned int address;
  char name[textSize];                                    ///< its attribute "name"
  NodeProperty properties[std::size(nodePropertyNames)];  ///< by nodePropertyNames
  Channel channels[32];                                   ///< of a multiplexer
  enum class Gpio { none, emptyDirectory, chip } gpio;    ///< of an expander
};

constexpr std::size_t i2cDeviceCount = 128;

/// The power of a module, as its GPIO links below /sys/platform show it.
struct PowerSequence {
  bool present;  ///< the module has links
  bool enableMissing;
  bool doneMissing;
  bool flickers;  ///< the first done reading does not last
  bool enabled;
  std::int64_t switchedAt;
  std::int64_t onDelay;  ///< negative for never
  std::int64_t offDelay;
};

/// Modules are numbered as the slots, 0 to 5; four of them have power links.
constexpr unsigned int moduleCount = 6;

/// A device of the PCI Express fabric, function 0 in domain 0.
struct PciDevice {
  bool present;
  bool unreadable;  ///< every access to its configuration space fails
  std::uint8_t bus;
  std::uint8_t device;

  // Link and errors. Times are negative for never.
  bool linkUp;
  std::int64_t linkLostAfter;  ///< from the start of the instrument
  std::uint16_t linkStatus;    ///< Link Status register while the link is up
  std::int64_t trainingUntil;
  std::uint32_t uncorrectable;  ///< error status that latches again whenever it is cleared
  std::uint32_t correctable;

  // Self-test of a downstream port.
  bool loopbackRefused;  ///< its switch does not become loopback master
  bool prbsOutOfSync;
  std::int64_t prbsErrorsAfter;  ///< from when PRBS is switched on
  std::uint32_t prbsErrorsPerSecond;
  std::int64_t prbsSince;

  std::uint8_t config[4096];
  std::uint8_t stuck[4096];  ///< bits that no write changes
};

enum PciPlace : unsigned {
  rootPort,
  switchUpstream,
  port1,
  port5,
  port7,
  port9,
  shimUpstream,
  shimPort1,
  shimPort5,
  pciPlaceCount
};

constexpr const char* pciPlaceNames[] = {"root",  "switch", "port1",      "port5",     "port7",
                                         "port9", "shim",   "shim-port1", "shim-port5"};
static_assert(std::size(pciPlaceNames) == pciPlaceCount, "each place has a name");

/// The main switch's ports by the modules that they lead to.
constexpr PciPlace modulePorts[] = {port1, port9, port7, port5};

/// Faults that a description switches on by name.
enum Fault : unsigned {
  udevContext,
  udevEnumeration,
  gpioExport,
  interruptedSleep,
  fpgaAccess,
  busLookup,
  faultCount
};

constexpr const char* faultNames[] = {
    "udev-context", "udev-enumeration", "gpio-export", "interrupted-sleep", "fpga", "bus-lookup"};
static_assert(std::size(faultNames) == faultCount, "each fault has a name");

struct Hardware {
  GpioLine lines[gpioLineCount];
  I2cDevice i2cDevices[i2cDeviceCount];
  PowerSequence power[moduleCount];
  bool pciSystem;  ///< there is a PCI bus at all
  PciDevice pci[pciPlaceCount];
  bool faults[faultCount];
};

}  // namespace simulator
