// SPDX-License-Identifier: MIT
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "simulator/shared/Hardware.h"

/// I2C devices and the buses that they are on.
namespace simulator::i2c {

/// Bus and address, such as "0-0074".
std::string nameOf(const I2cDevice& device);

/// Where the kernel shows a bus.
std::string busDirectory(const Hardware& hardware, unsigned int bus);

/// Where the kernel shows a device.
std::string directoryOf(const Hardware& hardware, const I2cDevice& device);

/// The way to a device: its first bus, then the address and channel of each multiplexer, then its
/// own address. The kernel finds the devices in the order of these.
std::vector<unsigned int> placeOf(const Hardware& hardware, const I2cDevice& device);

/// Whether the kernel shows a device: neither it nor a multiplexer before it has been pulled.
bool isThere(const Hardware& hardware, const I2cDevice& device);

/// The multiplexer that has a bus behind one of its channels; null for none.
const I2cDevice* muxBefore(const Hardware& hardware, unsigned int bus);

/// Whether libudev can open the device of a sysfs path.
bool canBeOpened(const Hardware& hardware, const std::string& path);

/// The index of the expander with a chip that powers a module, pulled or not: the one on the
/// module's system bus or, where that has none of its own, on the bus that leads to it. Negative
/// for none.
int powerExpander(const Hardware& hardware, unsigned int module);

}  // namespace simulator::i2c
