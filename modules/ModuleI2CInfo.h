// SPDX-License-Identifier: MIT
#pragma once

#include <map>
#include <mutex>
#include <string>

/// The I2C buses of a module: a snapshot of the device tree.
///
/// Each module number is described by one I2C device, found through udev, whose device-tree node
/// holds these properties as text:
/// - `id`: the module number in decimal;
/// - `2k4k`: "1" for a 2k4k module; may be missing;
/// - `top`: a bus name followed by multiplexer channel numbers, as in "i2c-2/3/1";
/// - `system` and `solution`: channel numbers of the multiplexer on the top bus; bus names where
///   `top` is a bus name alone. Not read for a 2k4k module, whose system and solution buses are
///   its top bus, and empty where `top` is a bus name alone.
///
/// Every number is resolved once per process, also one that no device describes; a change of the
/// device tree is not seen after that. Objects may be constructed on any thread. Nothing is
/// printed.
class ModuleI2CInfo {
 public:
  /// Takes the module's buses from `cache`, or resolves them and adds them to it.
  ///
  /// A number that no device describes has empty names. A property that is missing reads as empty,
  /// and a device that cannot be opened is passed over. Where several devices describe the same
  /// number, the last one listed counts; the module is a 2k4k module when any of them says so, and
  /// a device without a `2k4k` property goes by that of the device before it.
  ///
  /// A failed construction adds nothing to `cache` and leaves `cacheLock` unlocked.
  ///
  /// @param moduleNumber  module (slot) number
  /// @throws std::runtime_error     "Can't create udev": udev is unavailable
  /// @throws std::invalid_argument  "stoi": a channel in `top`, `system` or `solution` does not
  ///                                begin with a decimal number
  /// @throws std::out_of_range      "stoi": a channel does not fit into an int
  /// @throws std::system_error      `cacheLock` cannot be locked
  ///
  /// Whatever I2CDev::FindI2CBusNameOfMuxChannel throws passes through.
  explicit ModuleI2CInfo(unsigned int moduleNumber);

  /// Name of the top bus, such as "i2c-2"; a `top` property without channels is taken unchanged,
  /// a "/" at its end included.
  std::string topBus;

  /// Name of the bus that carries the module's power expander; empty when a look-up found none.
  std::string systemBus;

  /// Name of the solution bus; empty when a look-up found none.
  std::string solutionBus;

  /// The module is a 2k4k module.
  bool is2k4k = false;

  /// Name of the bus behind channel 3 of the multiplexer on "i2c-2", as the platform finds it: see
  /// I2CDev::FindI2CBusNameOfMuxChannel.
  std::string local1() const;

  /// As local1(), for channel 4.
  std::string local2() const;

  /// As local1(), for channel 5.
  std::string local3() const;

  /// As local1(), for channel 6.
  std::string local4() const;

  /// The module numbers resolved so far; entries are never changed or removed. Hold `cacheLock` to
  /// read it.
  ///
  /// It exists from the loading of the library, so before any initialiser of a program linked with
  /// it runs, until the process exits: no thread may construct a ModuleI2CInfo after that.
  static std::map<unsigned int, ModuleI2CInfo> cache;

  /// Guards `cache`; held for a whole construction, so not to be held while constructing. A fork
  /// waits until no construction holds it.
  static std::mutex cacheLock;

 private:
  ModuleI2CInfo() = default;
  static ModuleI2CInfo resolve(unsigned int moduleNumber);
  static const ModuleI2CInfo& cacheEntry(unsigned int moduleNumber,
                                         const std::lock_guard<std::mutex>& lock);
};
