// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// The kernel's sysfs GPIO interface below /sys/class/gpio, with the kernel's refusals: see
/// Attributes in Part.h.
namespace simulator::gpio {

bool owns(const std::string& path);
int open(const std::string& path, bool writing, std::string& content);
int store(const std::string& path, const std::string& text);

}  // namespace simulator::gpio
