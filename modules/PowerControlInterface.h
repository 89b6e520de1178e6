// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// The power of one module.
class PowerControlInterface {
 public:
  virtual ~PowerControlInterface();

  /// Names the hardware that switches the power; empty when it was not found, and the object is
  /// then of no use.
  virtual std::string GetPath() = 0;

  /// Whether the module's power is on.
  virtual bool isPowerOn() = 0;

  /// Switches the module on, and returns when its power sequence has finished or a time-out has run
  /// out. A failure is a line on the standard error stream, never an exception.
  virtual void PowerOn() = 0;

  /// Switches the module off; otherwise as PowerOn().
  virtual void PowerOff() = 0;
};
