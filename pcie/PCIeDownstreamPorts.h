// SPDX-License-Identifier: MIT
#pragma once

/// The downstream ports that PCIeDiagnostics addresses. All devices are in PCI domain 0 and are
/// function 0. The values index every per-port table, DiagnosticMaskRegs among them.
enum PCIeDownstreamPorts : unsigned int {
  DownstreamPort1 = 0,  ///< main switch, bus 2 device 1: backplane slot 0
  DownstreamPort5 = 1,  ///< main switch, bus 2 device 5: backplane slot 3
  DownstreamPort7 = 2,  ///< main switch, bus 2 device 7: backplane slot 2
  DownstreamPort9 = 3,  ///< main switch, bus 2 device 9: backplane slot 1
  ShimPort1 = 4,        ///< shim switch's secondary bus, device 1: after setupShimSwitch only
  ShimPort5 = 5,        ///< shim switch's secondary bus, device 5: after setupShimSwitch only
};
