// SPDX-License-Identifier: MIT
#pragma once

#include <linux/pci_regs.h>

#include <cstdint>

// Configuration-space offsets and masks of the root port and the switches. What <linux/pci_regs.h>
// calls a register of a capability is an offset within it.

/// Registers of the root port.
namespace rootRegister {

constexpr std::uint32_t pcieCapability = 0x70;
constexpr std::uint32_t aerCapability = 0x100;

constexpr std::uint32_t deviceControl = pcieCapability + PCI_EXP_DEVCTL;
constexpr std::uint32_t deviceStatus = pcieCapability + PCI_EXP_DEVSTA;
constexpr std::uint32_t linkStatus = pcieCapability + PCI_EXP_LNKSTA;
constexpr std::uint32_t rootControl = pcieCapability + PCI_EXP_RTCTL;

constexpr std::uint32_t uncorrectableStatus = aerCapability + PCI_ERR_UNCOR_STATUS;
constexpr std::uint32_t correctableStatus = aerCapability + PCI_ERR_COR_STATUS;
constexpr std::uint32_t rootErrorCommand = aerCapability + PCI_ERR_ROOT_COMMAND;
constexpr std::uint32_t rootErrorStatus = aerCapability + PCI_ERR_ROOT_STATUS;

}  // namespace rootRegister

/// Registers of each port of a switch, upstream or downstream.
namespace portRegister {

constexpr std::uint32_t pcieCapability = 0x68;
constexpr std::uint32_t aerCapability = 0xFB4;

// Words of two registers or more, the one named last in the upper half.
constexpr std::uint32_t commandAndStatus = PCI_COMMAND;
constexpr std::uint32_t interruptAndBridgeControl = PCI_INTERRUPT_LINE;
constexpr std::uint32_t linkControlAndStatus = pcieCapability + PCI_EXP_LNKCTL;

constexpr std::uint32_t deviceControl = pcieCapability + PCI_EXP_DEVCTL;

constexpr std::uint32_t uncorrectableStatus = aerCapability + PCI_ERR_UNCOR_STATUS;
constexpr std::uint32_t correctableStatus = aerCapability + PCI_ERR_COR_STATUS;
constexpr std::uint32_t errorControl = aerCapability + PCI_ERR_CAP;

constexpr std::uint32_t register1E8 = 0x1E8;
constexpr std::uint32_t register1EC = 0x1EC;

}  // namespace portRegister

/// Registers of a switch as a whole, in the configuration space of its upstream port, with bits for
/// each of its downstream ports.
namespace switchRegister {

constexpr std::uint32_t portLinks = 0x1F4;
constexpr std::uint32_t loopbackMaster = 0x224;
constexpr std::uint32_t quietTransmit = 0x234;
constexpr std::uint32_t prbsDiagnostic = 0x244;
constexpr std::uint32_t prbsEnable = 0x25C;
constexpr std::uint32_t analogLoopbackAndPrbsSync = 0xB84;
constexpr std::uint32_t driveLevel = 0xB98;
constexpr std::uint32_t postCursorEmphasis = 0xBA8;

}  // namespace switchRegister

constexpr std::uint32_t keepAll = 0xFFFFFFFF;
constexpr unsigned int upperHalf = 16;

// Device Control and Device Status.
constexpr std::uint16_t errorReportingEnable =
    PCI_EXP_DEVCTL_CERE | PCI_EXP_DEVCTL_NFERE | PCI_EXP_DEVCTL_FERE | PCI_EXP_DEVCTL_URRE;
constexpr std::uint16_t errorsDetected =
    PCI_EXP_DEVSTA_CED | PCI_EXP_DEVSTA_NFED | PCI_EXP_DEVSTA_FED | PCI_EXP_DEVSTA_URD;

// Root Control and Root Error Command.
constexpr std::uint32_t systemErrorEnable =
    PCI_EXP_RTCTL_SECEE | PCI_EXP_RTCTL_SENFEE | PCI_EXP_RTCTL_SEFEE;
constexpr std::uint16_t rootReportingEnable =
    PCI_ERR_ROOT_CMD_COR_EN | PCI_ERR_ROOT_CMD_NONFATAL_EN | PCI_ERR_ROOT_CMD_FATAL_EN;

// Bridge Control, in the upper half of its word.
constexpr std::uint32_t bridgeErrorEnable = (PCI_BRIDGE_CTL_PARITY | PCI_BRIDGE_CTL_SERR)
                                            << upperHalf;

// Link Status.
constexpr std::uint16_t rootLinkExpected =
    PCI_EXP_LNKSTA_DLLLA | PCI_EXP_LNKSTA_NLW_X1 | PCI_EXP_LNKSTA_CLS_5_0GB;
constexpr std::uint16_t rootLinkMask = rootLinkExpected | PCI_EXP_LNKSTA_LT;
constexpr std::uint32_t portDataLinkActive = std::uint32_t{PCI_EXP_LNKSTA_DLLLA} << upperHalf;

// Error status.
constexpr std::uint32_t uncorrectableErrors =
    PCI_ERR_UNC_DLP | PCI_ERR_UNC_SURPDN | PCI_ERR_UNC_POISON_TLP | PCI_ERR_UNC_FCP |
    PCI_ERR_UNC_COMP_TIME | PCI_ERR_UNC_COMP_ABORT | PCI_ERR_UNC_UNX_COMP | PCI_ERR_UNC_RX_OVER |
    PCI_ERR_UNC_MALF_TLP | PCI_ERR_UNC_ECRC | PCI_ERR_UNC_UNSUP | PCI_ERR_UNC_ACSV;
constexpr std::uint32_t correctableErrors = PCI_ERR_COR_RCVR | PCI_ERR_COR_BAD_TLP |
                                            PCI_ERR_COR_BAD_DLLP | PCI_ERR_COR_REP_ROLL |
                                            PCI_ERR_COR_REP_TIMER | PCI_ERR_COR_ADV_NFAT;
constexpr std::uint32_t rootCorrectableErrors = PCI_ERR_COR_BAD_TLP | PCI_ERR_COR_BAD_DLLP;

// Loopback master: a port's status bit lies this far above its enable bit.
constexpr unsigned int loopbackStatusShift = 3;

// Quiet transmit: of a port's three bits the one in this byte reads back.
constexpr std::uint32_t quietReadBack = 0x000000FF;

// PRBS diagnostic and PRBS enable.
constexpr std::uint32_t prbsPortSelect = 0x03000000;
constexpr std::uint32_t prbsCounterValid = 0x40000000;
constexpr std::uint32_t prbsCounter = 0x00FF0000;
constexpr unsigned char prbsCounterShift = 16;
constexpr std::uint32_t prbsEnableBits = 0x0F0F0000;

// Drive level and post-cursor emphasis.
constexpr std::uint32_t transmitterField = 0x0000000F;
