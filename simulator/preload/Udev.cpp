// SPDX-License-Identifier: MIT
// libudev: the real library answers from the simulated tree; here its calls enter the trace and
// fail where the description says so.

#include <libudev.h>

#include <cerrno>
#include <string>

#include "simulator/parts/Changes.h"
#include "simulator/parts/I2cDevices.h"
#include "simulator/preload/Next.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

using simulator::admit;
using simulator::inQuotes;
using simulator::Nested;
using simulator::next;
using simulator::trace;
using simulator::traceResult;

namespace {

/// libudev takes null for "any".
const char* textOf(const char* argument) { return argument == nullptr ? "" : argument; }

/// Admits a call and traces it; true, with errno, when it fails.
bool refuses(const std::string& call) {
  const int error = admit(call);
  traceResult(call, error);
  errno = error != 0 ? error : errno;
  return error != 0;
}

}  // namespace

extern "C" {

udev* udev_new() {
  static const auto real = next(&udev_new, "udev_new");
  if (refuses("udev_new")) {
    return nullptr;
  }
  const Nested nested;
  return real();
}

udev* udev_unref(udev* context) {
  static const auto real = next(&udev_unref, "udev_unref");
  trace("udev_unref");
  return real(context);
}

udev_enumerate* udev_enumerate_new(udev* context) {
  static const auto real = next(&udev_enumerate_new, "udev_enumerate_new");
  if (refuses("udev_enumerate_new")) {
    return nullptr;
  }
  return real(context);
}

udev_enumerate* udev_enumerate_unref(udev_enumerate* enumeration) {
  static const auto real = next(&udev_enumerate_unref, "udev_enumerate_unref");
  trace("udev_enumerate_unref");
  return real(enumeration);
}

int udev_enumerate_add_match_subsystem(udev_enumerate* enumeration, const char* subsystem) {
  static const auto real =
      next(&udev_enumerate_add_match_subsystem, "udev_enumerate_add_match_subsystem");
  if (refuses(std::string("udev_enumerate_add_match_subsystem ") + textOf(subsystem))) {
    return -errno;
  }
  return real(enumeration, subsystem);
}

int udev_enumerate_add_match_sysattr(udev_enumerate* enumeration, const char* attribute,
                                     const char* value) {
  static const auto real =
      next(&udev_enumerate_add_match_sysattr, "udev_enumerate_add_match_sysattr");
  if (refuses(std::string("udev_enumerate_add_match_sysattr ") + textOf(attribute) + " " +
              inQuotes(textOf(value)))) {
    return -errno;
  }
  return real(enumeration, attribute, value);
}

int udev_enumerate_scan_devices(udev_enumerate* enumeration) {
  static const auto real = next(&udev_enumerate_scan_devices, "udev_enumerate_scan_devices");
  if (refuses("udev_enumerate_scan_devices")) {
    return -errno;
  }
  const Nested nested;
  return real(enumeration);
}

udev_device* udev_device_new_from_syspath(udev* context, const char* path) {
  static const auto real = next(&udev_device_new_from_syspath, "udev_device_new_from_syspath");
  const std::string call = std::string("udev_device_new_from_syspath ") + textOf(path);
  int error = admit(call);
  if (error == 0 && simulator::attached() &&
      !simulator::i2c::canBeOpened(simulator::Locked()->hardware, textOf(path))) {
    error = ENODEV;
  }
  traceResult(call, error);
  if (error != 0) {
    errno = error;
    return nullptr;
  }
  const Nested nested;
  return real(context, path);
}

const char* udev_device_get_sysattr_value(udev_device* device, const char* attribute) {
  static const auto real = next(&udev_device_get_sysattr_value, "udev_device_get_sysattr_value");
  const std::string line = std::string("udev_device_get_sysattr_value ") + textOf(attribute);
  const int error = admit(line);
  const char* value = nullptr;
  if (error == 0) {
    const Nested nested;
    value = real(device, attribute);
  }
  traceResult(value == nullptr ? line : line + " " + inQuotes(value), error != 0         ? error
                                                                      : value == nullptr ? ENOENT
                                                                                         : 0);
  return value;
}

udev_device* udev_device_unref(udev_device* device) {
  static const auto real = next(&udev_device_unref, "udev_device_unref");
  trace("udev_device_unref");
  const Nested nested;  // it releases the device's parents by the same function
  return real(device);
}

}  // extern "C"
