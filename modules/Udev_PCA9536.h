// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "modules/PowerControlInterface.h"

/// The power of a module whose system I2C bus carries a PCA9536 GPIO expander.
///
/// The module's lines are GPIO links below /sys/platform, for the module numbers 1, 2, 4 and 5:
/// power enable ("1" is on) and sequence done ("0" is done). No other number has links, and no such
/// module is expected to carry an expander: both lines of its controller are the file "/value",
/// which GpioExported(), PowerOn() and PowerOff() create if the program is permitted to.
///
/// A 2k4k module is never switched: the controller records the requested state only.
///
/// Not for use by several threads: neither one object nor, because all controllers share one
/// debounce flag (see WaitForPowerSequence), PowerOn() of different objects. A line that cannot be
/// opened is reported on the standard error stream, as "Can't open: " and its path, and reads as
/// empty.
class Udev_PCA9536 : public PowerControlInterface {
 public:
  /// Looks for the module's expander: the first one whose device path contains the name of the
  /// module's system bus. Where that one has no GPIO chip, no other is examined. An expander that
  /// is not found is no error: GetPath() is then empty. Nothing is printed.
  ///
  /// @param number  module (slot) number
  /// @throws std::runtime_error  "Can't create udev": udev is unavailable
  ///
  /// Whatever ModuleI2CInfo throws passes through.
  explicit Udev_PCA9536(unsigned int number);

  /// Switches nothing.
  ~Udev_PCA9536() override;

  /// Directory of the expander's GPIO chip; empty when none was found.
  std::string GetPath() override;

  /// Whether the power-enable line reads "1", false when it cannot be read; for a 2k4k module, the
  /// state requested last, off at first.
  bool isPowerOn() override;

  /// Drives the power-enable line, then switches the clock source on, then waits up to 5 s for the
  /// power sequence: see WaitForPowerSequence for what it prints. Nothing is undone on a time-out.
  void PowerOn() override;

  /// Switches the clock source off, then releases the power-enable line, then waits up to 2 s:
  /// otherwise as PowerOn().
  void PowerOff() override;

  /// Lists all PCA9536 expanders that udev knows, on whatever bus.
  ///
  /// @return sysfs paths of the devices; empty when there is none
  /// @throws std::runtime_error  "Can't create udev": udev is unavailable
  std::vector<std::string> GetDevices() const;

  /// Lists a directory.
  ///
  /// @param path  directory, used unchanged
  /// @return the names of all entries, "." and ".." included, in directory order; empty when the
  ///         directory cannot be opened
  std::vector<std::string> ReadDirectory(std::string path) const;

  /// Finds an entry of a directory, which need not be a directory itself.
  ///
  /// @param path        directory, used unchanged
  /// @param name        name to look for
  /// @param exactMatch  the entry's name equals `name`; otherwise it contains `name`
  /// @return `path`, "/" and the name of the first match in directory order; empty when there is
  ///         none or the directory cannot be opened
  std::string FindSubdir(std::string path, std::string name, bool exactMatch) const;

  /// Takes over the GPIO links of the module number; changes nothing for a number without links.
  void SetupGpio();

  /// Whether the power-enable line can be opened for writing. Writes and prints nothing.
  bool GpioExported() const;

  /// Whether the sequence-done line reads "0"; false when it cannot be read.
  bool PowerSequenceDone() const;

  /// Reads the sequence-done line every 20 ms until the power sequence has finished. Modules 4 and
  /// 5 are not polled: the call returns at once.
  ///
  /// A module is off at the first reading of not done. It is on at the second of two consecutive
  /// readings of done; one that does not last prints "Power on done debounce check failed ", and
  /// polling goes on. The flag for the first reading is shared by all controllers of the process
  /// and outlives a time-out: a wait for power-on that follows accepts its first reading of done.
  ///
  /// Messages go to the standard error stream, and the caller is not told how the wait ended.
  ///
  /// @param poweringOff  wait for off rather than on
  /// @param timeout      longest wait, in milliseconds; only the time between readings counts. It
  ///                     prints "Power on sequence done timed out" or "Power off sequence done
  ///                     timed out" when it has run out; at 0 or less at once, without a reading
  void WaitForPowerSequence(bool poweringOff, std::chrono::milliseconds timeout);

 private:
  unsigned int moduleNumber;
  std::string gpioChipPath;
  std::string powerEnablePath;
  std::string sequenceDonePath;
  bool is2k4k;
  bool softPowerOn;
};
