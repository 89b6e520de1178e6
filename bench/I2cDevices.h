// SPDX-License-Identifier: MIT
#pragma once

/// Changes the tree so that udev lists so many I2C devices, those of bench/run.sh included.
void setI2cDeviceCount(int count);
