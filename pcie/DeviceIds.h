// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

/// Vendor and device ID of a PCI device; both 0 where there is no device.
struct DeviceIds {
  std::uint16_t vendorId = 0;  ///< vendor ID
  std::uint16_t deviceId = 0;  ///< device ID
};
