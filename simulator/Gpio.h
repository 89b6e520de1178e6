#pragma once

#include <string>

/// The kernel's sysfs GPIO interface below /sys/class/gpio, with the kernel's refusals.
///
/// Paths are relative to /sys/class/gpio. Results are 0 or an errno value.
namespace simulator::gpio {

/// Whether the path is an attribute of the interface (export, unexport, a line's direction or
/// value) rather than a plain file or directory.
bool owns(const std::string& path);

/// Opens an attribute; for reading, `content` receives what it holds.
int open(const std::string& path, bool writing, std::string& content);

/// Takes what a program has written to an attribute.
int store(const std::string& path, const std::string& text);

}  // namespace simulator::gpio
