// SPDX-License-Identifier: MIT
#include "sysfs/Sysfs.h"

Sysfs::~Sysfs() = default;
