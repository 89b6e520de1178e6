#include "pcie/DiagnosticMaskRegs.h"

// Column 0 is no slip: the hardware orders its bits differently from those of the other columns.
const std::uint32_t DiagnosticMaskRegs[6][4] = {
    {0x00000100, 0x00010000, 0x01000000, 0x00000000},
    {0x00001000, 0x00080000, 0x08000000, 0x03000000},
    {0x00000800, 0x00040000, 0x04000000, 0x02000000},
    {0x00000400, 0x00020000, 0x02000000, 0x01000000},
    {0x00000100, 0x00010000, 0x01000000, 0x00000000},
    {0x00000400, 0x00020000, 0x02000000, 0x01000000},
};
