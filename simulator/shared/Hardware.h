// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

/// The hardware of an instrument as plain data: what a description fills in, and what all processes
/// on the instrument share and change. Times are microseconds.
namespace simulator {

/// A line of a GPIO chip.
struct GpioLine {
  enum class Condition : std::uint8_t {
    working,
    missing,      ///< the kernel knows no line of this number
    busy,         ///< another driver of the kernel holds the line
    noDirection,  ///< exported without a direction file
    noValue,      ///< the value file cannot be opened
  };
  enum class Edge : std::uint8_t { none, rising, falling, both };
  Condition condition;
  Edge edge;
  bool level;  ///< what the hardware outside drives on the line
  bool exported;
  bool output;
  bool driven;     ///< the level of an output
  bool activeLow;  ///< its value file shows and takes the opposite of the level
};

constexpr const char* conditionNames[] = {"working", "missing", "busy", "no-direction", "no-value"};
constexpr const char* edgeNames[] = {"none", "rising", "falling", "both"};

constexpr int boardLineCount = 256;
constexpr int expanderLineCount = 4;
constexpr int powerLineCount = 2;  ///< of a module: power enable and sequence done

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
  enum class Kind : std::uint8_t { plain, multiplexer, module, expander };
  enum class Gpio : std::uint8_t { none, emptyDirectory, chip };
  bool described;
  bool absent;      ///< as if it had not been described
  bool unopenable;  ///< libudev lists it but cannot open it
  Kind kind;
  Gpio gpio;      ///< of an expander
  int gpioBase;   ///< number of the first line of an expander's chip; 0 while there is none
  int firstLine;  ///< number that it is given; 0 for the first one that is free
  unsigned int bus;
  unsigned int address;
  char name[textSize];                                    ///< its attribute "name"
  char base[textSize];                                    ///< instead of the number, if not empty
  NodeProperty properties[std::size(nodePropertyNames)];  ///< by nodePropertyNames
  Channel channels[32];                                   ///< of a multiplexer
  GpioLine lines[expanderLineCount];                      ///< of an expander
};

constexpr std::size_t i2cDeviceCount = 128;

/// Where a bus is that no multiplexer leads to.
struct I2cBus {
  bool described;
  unsigned int bus;
  char parent[textSize];  ///< its adapter's directory below /sys/devices; empty for that itself
};

constexpr std::size_t i2cBusCount = 32;

/// The power of a module, as its GPIO links below /sys/platform show it.
struct PowerSequence {
  bool present;  ///< the module has links
  bool enableMissing;
  bool doneMissing;
  bool flickers;   ///< the first done reading does not last
  bool failed;     ///< there is no power, whatever the power-enable line says
  bool connected;  ///< the links have their lines
  bool enabled;    ///< by the level of the power-enable line
  int expander;    ///< index of the I2C device that has the lines; negative for `lines`
  static constexpr int unknown = -2;  ///< expander before it was looked for
  GpioLine lines[powerLineCount];
  std::int64_t switchedAt;
  std::int64_t onDelay;  ///< negative for never
  std::int64_t offDelay;
};

/// Modules are numbered as the slots, 0 to 5; four of them have power links.
constexpr unsigned int moduleCount = 6;

/// The clock source of a slot, which the board FPGA switches.
struct ClockSource {
  bool described;  ///< or else it is on where the module is on when the instrument starts
  bool on;
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

/// Bytes of a configuration space.
constexpr std::uint32_t configSize = 4096;

/// Transmitter settings of a switch, each from the first to the last, of those from 0 to most.
struct TransmitterSettings {
  static constexpr std::uint8_t most = 15;
  std::uint8_t driveLevel[2];
  std::uint8_t postCursor[2];
};

constexpr std::size_t goodSettingsCount = 8;

/// A device of the PCI Express fabric, function 0 in domain 0.
struct PciDevice {
  bool described;
  bool absent;      ///< or pulled
  bool listed;      ///< the kernel found it when it started
  bool unreadable;  ///< every access to its configuration space fails
  std::uint8_t bus;
  std::uint8_t device;
  PciPlace above;  ///< the device that leads to it; itself for the root port

  // The link below a root or downstream port, and errors.
  bool linkUp;
  bool linkWasUp;            ///< when it was looked at last
  bool untrained;            ///< its clock source has stopped: it needs retraining
  bool powered;              ///< the module below a port, when it was looked at last
  std::uint16_t linkStatus;  ///< Link Status register while the link is up
  std::int64_t trainingUntil;
  std::uint32_t uncorrectable;  ///< error status that latches again whenever it is cleared
  std::uint32_t correctable;

  // Self-test of a downstream port.
  bool loopbackRefused;  ///< its switch does not become loopback master
  bool prbsOutOfSync;
  std::int64_t prbsErrorsAfter;  ///< from when PRBS is switched on; negative for never
  std::uint32_t prbsErrorsPerSecond;
  std::int64_t prbsSince;
  TransmitterSettings prbsGood[goodSettingsCount];  ///< that bring no errors about
  std::size_t prbsGoodUsed;                         ///< 0 where no setting does
  std::uint32_t prbsErrorsPerStep;                  ///< the rate grows by this from step to step
  std::uint32_t prbsSyncSteps;                      ///< there is sync so far from the good ones

  std::uint8_t config[configSize];
  std::uint8_t afterReset[configSize];  ///< configuration space when the instrument started
  std::uint8_t stuck[configSize];       ///< bits that no write changes
};

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

/// A pattern of accesses as the shell has them, such as "pci read* 0000:02:01.0 *"; what it matches
/// may go on after a blank.
using AccessPattern = char[128];

/// A new value for a key of the description, from a moment on.
struct Change {
  enum class Phase : std::uint8_t { waiting, made, over };
  Phase phase;
  std::int64_t at;        ///< time; negative if it is an access that brings it about
  std::int64_t duration;  ///< until it is as before; 0 for ever
  AccessPattern access;
  std::uint32_t after;  ///< so many of these accesses
  std::uint32_t times;  ///< during so many of them; 0 for ever
  std::uint32_t seen;
  char group[160];
  char key[64];
  char value[textSize];
  char before[textSize];  ///< value, while it is made and not for ever
};

constexpr std::size_t changeCount = 128;

/// Accesses that fail.
struct Failure {
  static constexpr std::uint32_t always = 0xFFFFFFFF;
  static constexpr std::uint32_t certain = 1000000;
  AccessPattern access;
  int error;
  std::uint32_t after;  ///< so many of them succeed first
  std::uint32_t times;  ///< then so many are in danger
  std::uint32_t rate;   ///< of which such a part fails, by chance, in millionths
  std::uint32_t seen;
};

constexpr std::size_t failureCount = 64;

struct Hardware {
  bool running;       ///< what the kernel found when it started stays in its lists
  std::int64_t time;  ///< of what is being described or changed
  GpioLine lines[boardLineCount];
  I2cDevice i2cDevices[i2cDeviceCount];
  I2cBus i2cBuses[i2cBusCount];
  PowerSequence power[moduleCount];
  ClockSource clocks[moduleCount];
  bool pciSystem;  ///< there is a PCI bus at all
  PciDevice pci[pciPlaceCount];
  bool faults[faultCount];
  Change changes[changeCount];
  std::size_t changesUsed;
  Failure failures[failureCount];
  std::size_t failuresUsed;
  std::uint64_t random;  ///< state of the generator that decides on failures by chance
};

}  // namespace simulator
