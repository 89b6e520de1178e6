// SPDX-License-Identifier: MIT
#pragma once

namespace simulator {

/// Files that lead to hardware by another door than /sys: the instrument does not have these.
///
/// libpciaccess opens /proc/mtrr at each initialisation and never closes it; a power controller of
/// a module without links writes to /value, which root would create.
constexpr const char* hiddenFiles[] = {"/proc/mtrr", "/dev/mem", "/dev/kmem", "/dev/port",
                                       "/value"};

/// The same for all whose names begin so.
constexpr const char* hiddenBeginnings[] = {"/proc/bus/pci", "/dev/gpiochip", "/dev/i2c-"};

}  // namespace simulator
