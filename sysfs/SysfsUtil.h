// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "sysfs/Sysfs.h"

/// Sysfs and GPIO access through files.
///
/// Holds no state: every operation opens, uses and closes its files within the call, and no GPIO
/// line is ever unexported. Objects may be used from several threads; callers that work on the same
/// line coordinate themselves. Each operation that builds on another calls it as a virtual
/// operation, so a derived class that overrides writeSysfs, say, changes all that write.
class SysfsUtil : public Sysfs {
 public:
  /// Does nothing, as the destructor does.
  SysfsUtil();
  ~SysfsUtil() override;

  bool readSysfs(std::string path, char* buffer, int length) override;
  std::string readSysfs(std::string path, bool* success, bool stripLastChar) override;
  bool writeSysfs(std::string path, char const* data, int length) override;
  bool exportGpio(char const* gpio) override;
  std::string readGpioValue(char const* gpio, bool* success) override;
  bool setGpioValue(char const* gpio, char const* value) override;
  bool setGpioDirectionOutput(char const* gpio) override;
  bool setGpioDirectionInput(char const* gpio) override;

  /// Lists a directory.
  ///
  /// @param path  directory, used unchanged
  /// @return the names of all entries, "." and ".." included, in directory order; empty when the
  ///         directory cannot be opened
  std::vector<std::string> ReadDirectory(std::string path);

  /// Finds an entry of a directory; subdirectories are not searched.
  ///
  /// @param path        directory, used unchanged
  /// @param name        name to look for, case significant
  /// @param exactMatch  the entry's name equals `name`; otherwise it contains `name`
  /// @return `path`, "/" and the name of the first match in directory order; empty when there is
  ///         none or the directory cannot be opened
  std::string FindFile(std::string path, std::string name, bool exactMatch);

  /// Finds the number of the first GPIO line of a device that provides lines, such as an expander:
  /// the attribute "base" in the first entry of the device's "gpio" directory whose name contains
  /// "gpiochip". The first attribute whose name contains "base" counts.
  ///
  /// @param path  sysfs directory of the device
  /// @return kernel GPIO number; -1 when an entry is missing, unreadable or holds no number
  int FindGpioBase(std::string path);

  /// Reads a GPIO line as readGpioValue(char const*, bool*) does.
  ///
  /// @param gpio  kernel GPIO number
  /// @return true only when the value is exactly "1": a low line and a failed read are both false
  bool readGpioValue(int gpio);

  /// Drives a GPIO line as setGpioValue(char const*, char const*) does.
  ///
  /// @param gpio   kernel GPIO number
  /// @param value  true for high
  /// @return as setGpioValue(char const*, char const*)
  bool setGpioValue(int gpio, bool value);
};
