// SPDX-License-Identifier: MIT
#include "internal/UdevI2cDevices.h"

UdevI2cDevices::UdevI2cDevices(const char* attribute, const char* value) : library(udev_new()) {
  if (library == nullptr) {
    return;
  }
  enumeration.reset(udev_enumerate_new(library.get()));
  if (enumeration == nullptr) {
    return;
  }
  udev_enumerate_add_match_subsystem(enumeration.get(), "i2c");
  if (attribute != nullptr) {
    udev_enumerate_add_match_sysattr(enumeration.get(), attribute, value);
  }
  udev_enumerate_scan_devices(enumeration.get());
}

udev_list_entry* UdevI2cDevices::first() const {
  return available() ? udev_enumerate_get_list_entry(enumeration.get()) : nullptr;
}
