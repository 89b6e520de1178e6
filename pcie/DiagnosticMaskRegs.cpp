// SPDX-License-Identifier: MIT
#include "pcie/DiagnosticMaskRegs.h"

#include "pcie/internal/Ports.h"
#include "pcie/internal/Registers.h"

// Column 0 is no slip: the hardware orders its bits differently from those of the other columns.
constexpr std::uint32_t DiagnosticMaskRegs[6][4] = {
    {0x00000100, 0x00010000, 0x01000000, 0x00000000},
    {0x00001000, 0x00080000, 0x08000000, 0x03000000},
    {0x00000800, 0x00040000, 0x04000000, 0x02000000},
    {0x00000400, 0x00020000, 0x02000000, 0x01000000},
    {0x00000100, 0x00010000, 0x01000000, 0x00000000},
    {0x00000400, 0x00020000, 0x02000000, 0x01000000},
};

namespace {

using Row = std::uint32_t[4];

// A row that is missing is all zero.
constexpr bool allComplete() {
  for (const Row& row : DiagnosticMaskRegs) {
    if (!isOneBit(row[0]) || !isOneBit(row[1]) || !isOneBit(row[2])) {
      return false;
    }
  }
  return true;
}

constexpr bool allWithinTheirFields() {
  for (const Row& row : DiagnosticMaskRegs) {
    if ((row[2] & ~prbsEnableBits) != 0 || (row[3] & ~prbsPortSelect) != 0) {
      return false;
    }
  }
  return true;
}

constexpr bool clash(const Row& one, const Row& other) {
  return one[0] == other[0] || one[1] == other[1] || one[2] == other[2] || one[3] == other[3];
}

static_assert(allComplete(), "a row is missing");
static_assert(allWithinTheirFields(), "the port-select field has no fifth value");
static_assert(!anyClash(DiagnosticMaskRegs, clash), "two ports of a switch share a bit or value");

}  // namespace
