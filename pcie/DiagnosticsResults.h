// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

#include "pcie/DeviceIds.h"

/// Error and link state of one path: root port, upstream port of the downstream port's switch,
/// downstream port. All zero until filled.
///
/// PCIeDiagnostics::checkLiveDownstreamPort and PCIeDiagnostics::testDownstreamPort also fill
/// pciSystemReady, rootPortFound, upstreamFound, rootPortIds and upstreamIds, which
/// PCIeDiagnostics::getDiagnosticsResults leaves zero. The PRBS fields are filled where PRBS was
/// asked for. The fields' order and widths are part of the library's binary interface.
struct DiagnosticsResults {
  /// The PCI system could be initialised.
  bool pciSystemReady = false;

  /// The root port was found.
  bool rootPortFound = false;

  /// The upstream port that upstreamIds names was found.
  bool upstreamFound = false;

  /// The root port's link is active, is not training, and shows the expected speed and width bits:
  /// rootLinkStatus AND 0x2812 is 0x2012. False without a root port.
  bool rootLinkOk = false;

  /// 1 when a root port was read and rootLinkOk is false, else 0.
  std::uint32_t rootLinkFault = 0;

  /// Root port: Link Status register.
  std::uint16_t rootLinkStatus = 0;

  /// Root port: the four error-detected bits, 3:0, of the Device Status register.
  std::uint32_t rootDeviceStatus = 0;

  /// Root port: Uncorrectable Error Status register, for
  /// PCIeDiagnostics::DecodeUncorrectableStatus.
  std::uint32_t rootUncorrectableStatus = 0;

  /// Root port: the Bad TLP and Bad DLLP bits, 0xC0, of the Correctable Error Status register, for
  /// PCIeDiagnostics::DecodeCorrectableStatus.
  std::uint32_t rootCorrectableStatus = 0;

  /// Root port: its IDs.
  DeviceIds rootPortIds;

  /// Upstream port: its IDs.
  DeviceIds upstreamIds;

  /// Upstream port: the switch reports the link of the downstream port as up.
  bool downstreamLinkUp = false;

  /// Upstream port: Uncorrectable Error Status AND 0x3FF030.
  std::uint32_t upstreamUncorrectableStatus = 0;

  /// Upstream port: Correctable Error Status AND 0x31C1.
  std::uint32_t upstreamCorrectableStatus = 0;

  /// Downstream port: device-specific register 0x1E8.
  std::uint32_t portRegister1E8 = 0;

  /// Downstream port: device-specific register 0x1EC.
  std::uint32_t portRegister1EC = 0;

  /// Downstream port: its IDs; zero when the port is not resolved.
  DeviceIds portIds;

  /// Downstream port: Data Link Layer Link Active bit of its Link Status.
  bool portDataLinkActive = false;

  /// Downstream port: Uncorrectable Error Status AND 0x3FF030.
  std::uint32_t portUncorrectableStatus = 0;

  /// Downstream port: Correctable Error Status AND 0x31C1.
  std::uint32_t portCorrectableStatus = 0;

  /// Always 0.
  std::uint32_t reserved1 = 0;

  /// Always 0.
  std::uint32_t reserved2 = 0;

  /// The PRBS checker is in sync; false when PRBS was not asked for.
  bool prbsSync = false;

  /// PRBS errors counted, 0 to 255; 0 when the counter is not valid or PRBS was not asked for.
  std::uint32_t prbsErrors = 0;
};
