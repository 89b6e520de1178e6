// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

/// Bit masks of the switch registers that hold a bit or field for each downstream port. One row for
/// each PCIeDownstreamPorts value; the columns are
/// - 0: external analog loopback enable, register 0xB84,
/// - 1: PRBS sync status, register 0xB84,
/// - 2: PRBS enable, register 0x25C,
/// - 3: value of the port-select field, bits 25:24, of the PRBS diagnostic register 0x244.
extern const std::uint32_t DiagnosticMaskRegs[6][4];
