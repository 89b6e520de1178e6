// SPDX-License-Identifier: MIT
#pragma once

#include <libudev.h>

#include <memory>

/// The devices of udev's subsystem "i2c", listed once at construction. Releases the enumeration,
/// then the context.
class UdevI2cDevices {
 public:
  /// Lists all devices, or those whose sysfs attribute has the given value.
  explicit UdevI2cDevices(const char* attribute = nullptr, const char* value = nullptr);

  /// False when the udev context or the enumeration could not be created; the list is then empty.
  bool available() const { return enumeration != nullptr; }

  udev* context() const { return library.get(); }

  /// The first device, null when there is none; its name is the device's sysfs path.
  udev_list_entry* first() const;

 private:
  struct Release {
    void operator()(udev* object) const { udev_unref(object); }
    void operator()(udev_enumerate* object) const { udev_enumerate_unref(object); }
  };

  std::unique_ptr<udev, Release> library;
  std::unique_ptr<udev_enumerate, Release> enumeration;
};
