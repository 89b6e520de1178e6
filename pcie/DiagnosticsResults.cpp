// SPDX-License-Identifier: MIT
#include "pcie/DiagnosticsResults.h"

#include <cstddef>
#include <type_traits>

// Programs built against an earlier release receive this record by value: its layout must not move.

static_assert(sizeof(DeviceIds) == 4 && alignof(DeviceIds) == 2);
static_assert(offsetof(DeviceIds, vendorId) == 0);
static_assert(offsetof(DeviceIds, deviceId) == 2);

static_assert(sizeof(DiagnosticsResults) == 84 && alignof(DiagnosticsResults) == 4);
static_assert(std::is_trivially_copyable_v<DiagnosticsResults>);
static_assert(offsetof(DiagnosticsResults, pciSystemReady) == 0);
static_assert(offsetof(DiagnosticsResults, rootPortFound) == 1);
static_assert(offsetof(DiagnosticsResults, upstreamFound) == 2);
static_assert(offsetof(DiagnosticsResults, rootLinkOk) == 3);
static_assert(offsetof(DiagnosticsResults, rootLinkFault) == 4);
static_assert(offsetof(DiagnosticsResults, rootLinkStatus) == 8);
static_assert(offsetof(DiagnosticsResults, rootDeviceStatus) == 12);
static_assert(offsetof(DiagnosticsResults, rootUncorrectableStatus) == 16);
static_assert(offsetof(DiagnosticsResults, rootCorrectableStatus) == 20);
static_assert(offsetof(DiagnosticsResults, rootPortIds) == 24);
static_assert(offsetof(DiagnosticsResults, upstreamIds) == 28);
static_assert(offsetof(DiagnosticsResults, downstreamLinkUp) == 32);
static_assert(offsetof(DiagnosticsResults, upstreamUncorrectableStatus) == 36);
static_assert(offsetof(DiagnosticsResults, upstreamCorrectableStatus) == 40);
static_assert(offsetof(DiagnosticsResults, portRegister1E8) == 44);
static_assert(offsetof(DiagnosticsResults, portRegister1EC) == 48);
static_assert(offsetof(DiagnosticsResults, portIds) == 52);
static_assert(offsetof(DiagnosticsResults, portDataLinkActive) == 56);
static_assert(offsetof(DiagnosticsResults, portUncorrectableStatus) == 60);
static_assert(offsetof(DiagnosticsResults, portCorrectableStatus) == 64);
static_assert(offsetof(DiagnosticsResults, reserved1) == 68);
static_assert(offsetof(DiagnosticsResults, reserved2) == 72);
static_assert(offsetof(DiagnosticsResults, prbsSync) == 76);
static_assert(offsetof(DiagnosticsResults, prbsErrors) == 80);
