// SPDX-License-Identifier: MIT
#pragma once

#include <string>

#include "simulator/shared/Hardware.h"

namespace simulator::i2c {

/// Whether libudev can open the device of a sysfs path.
bool canBeOpened(const Hardware& hardware, const std::string& path);

}  // namespace simulator::i2c
