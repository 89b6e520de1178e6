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

  /// Calls `visit` with the sysfs path of each device, in udev's order, until it returns true.
  /// Returns whether it did. A device whose path udev does not tell is passed over.
  template <typename Visit>
  bool any(Visit visit) const {
    for (udev_list_entry* entry = first(); entry != nullptr;
         entry = udev_list_entry_get_next(entry)) {
      const char* const path = udev_list_entry_get_name(entry);
      if (path != nullptr && visit(path)) {
        return true;
      }
    }
    return false;
  }

 private:
  udev_list_entry* first() const;

  struct Release {
    void operator()(udev* object) const { udev_unref(object); }
    void operator()(udev_enumerate* object) const { udev_enumerate_unref(object); }
  };

  std::unique_ptr<udev, Release> library;
  std::unique_ptr<udev_enumerate, Release> enumeration;
};
