// SPDX-License-Identifier: MIT
#include "pcie/internal/ErrorReporting.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include "pcie/PCIeDiagnostics.h"
#include "pcie/internal/ConfigSpace.h"
#include "pcie/internal/Registers.h"

namespace {

struct ErrorName {
  std::uint32_t bit;
  std::string_view name;
};

// Callers compare these texts, "Poisoned DLP" included.
constexpr ErrorName uncorrectableNames[] = {
    {PCI_ERR_UNC_DLP, "Data Link"},
    {PCI_ERR_UNC_SURPDN, "Surprise Down"},
    {PCI_ERR_UNC_POISON_TLP, "Poisoned DLP"},
    {PCI_ERR_UNC_FCP, "Flow Control"},
    {PCI_ERR_UNC_COMP_TIME, "Completion Timeout"},
    {PCI_ERR_UNC_COMP_ABORT, "Completion Abort"},
    {PCI_ERR_UNC_UNX_COMP, "Unexpected Completion"},
    {PCI_ERR_UNC_RX_OVER, "Receiver Overflow"},
    {PCI_ERR_UNC_MALF_TLP, "Malformed TLP"},
    {PCI_ERR_UNC_ECRC, "ECRC Error"},
    {PCI_ERR_UNC_UNSUP, "Unsupported Request"},
    {PCI_ERR_UNC_ACSV, "ACS Violation"},
};

constexpr ErrorName correctableNames[] = {
    {PCI_ERR_COR_RCVR, "Rx Errors"},           {PCI_ERR_COR_BAD_TLP, "Bad TLP"},
    {PCI_ERR_COR_BAD_DLLP, "Bad DLLP"},        {PCI_ERR_COR_REP_ROLL, "Replay Num"},
    {PCI_ERR_COR_REP_TIMER, "Replay Timeout"}, {PCI_ERR_COR_ADV_NFAT, "Advisory"},
};

constexpr std::string_view separator = ", ";

template <std::size_t size>
constexpr std::uint32_t allBitsOf(const ErrorName (&names)[size]) {
  std::uint32_t bits = 0;
  for (const ErrorName& error : names) {
    bits |= error.bit;
  }
  return bits;
}

static_assert(allBitsOf(uncorrectableNames) == uncorrectableErrors);
static_assert(allBitsOf(correctableNames) == correctableErrors);

template <std::size_t size>
constexpr std::size_t longestText(const ErrorName (&names)[size]) {
  std::size_t length = 0;
  for (const ErrorName& error : names) {
    length += separator.size() + error.name.size();
  }
  return length;
}

char* append(char* end, std::string_view text) { return std::copy(text.begin(), text.end(), end); }

// Put together on the stack: one allocation of the right size, or none for a short text.
template <const auto& names>
std::string decode(std::uint32_t status) {
  char text[longestText(names)];
  char* end = text;
  for (const ErrorName& error : names) {
    if ((status & error.bit) != 0) {
      end = append(end == text ? end : append(end, separator), error.name);
    }
  }
  return end == text ? "None" : std::string(text, end);
}

}  // namespace

void enableRootErrorReporting(pci_device* root) {
  setConfigBits16(root, rootRegister::deviceControl, errorReportingEnable);
  setConfigBits16(root, rootRegister::rootErrorCommand, rootReportingEnable);
  writeBackConfig16(root, rootRegister::deviceStatus);
  setConfigBits32(root, rootRegister::rootControl, systemErrorEnable);
  clearRootErrorStatus(root);
}

void clearRootErrorStatus(pci_device* root) {
  writeBackConfig32(root, rootRegister::rootErrorStatus);
  writeBackConfig32(root, rootRegister::correctableStatus);
  writeBackConfig32(root, rootRegister::uncorrectableStatus);
}

void enableBridgeErrorReporting(pci_device* bridge) {
  setConfigBits32(bridge, portRegister::commandAndStatus, PCI_COMMAND_SERR);
  setConfigBits32(bridge, portRegister::interruptAndBridgeControl, bridgeErrorEnable);
  setConfigBits16(bridge, portRegister::deviceControl, errorReportingEnable);
  setConfigBits32(bridge, portRegister::errorControl, PCI_ERR_CAP_ECRC_CHKE);
  clearBridgeErrorStatus(bridge);
}

void clearBridgeErrorStatus(pci_device* bridge) {
  writeConfig32(bridge, uncorrectableErrors, portRegister::uncorrectableStatus);
  writeConfig32(bridge, correctableErrors, portRegister::correctableStatus);
}

std::string PCIeDiagnostics::DecodeUncorrectableStatus(unsigned int status) const {
  return decode<uncorrectableNames>(status);
}

std::string PCIeDiagnostics::DecodeCorrectableStatus(unsigned int status) const {
  return decode<correctableNames>(status);
}
