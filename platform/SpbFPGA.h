// SPDX-License-Identifier: MIT
#pragma once

/// The board FPGA, as far as this library uses it: the clock sources of the module slots.
///
/// The class belongs to the platform's board-support library. This declaration names only what the
/// library calls; a platform library linked in the stand-in's place provides the same operations.
/// The stand-in has no FPGA: every operation does nothing, silently.
class SpbFPGA {
 public:
  /// Opens access to the board FPGA.
  SpbFPGA();
  virtual ~SpbFPGA();

  /// Switches on the clock source that feeds a module.
  ///
  /// @param slot  slot number
  virtual void TurnOnModuleClockSource(unsigned int slot);

  /// Switches off the clock source that feeds a module.
  ///
  /// @param slot  slot number
  virtual void TurnOffModuleClockSource(unsigned int slot);
};
