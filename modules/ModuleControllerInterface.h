// SPDX-License-Identifier: MIT
#pragma once

/// Controls the module in one slot of the backplane.
class ModuleControllerInterface {
 public:
  virtual ~ModuleControllerInterface();

  /// Whether the controller sees a module.
  virtual bool isPresent() = 0;

  /// Whether the module is powered.
  virtual bool isOn() = 0;

  /// Powers the module; returns when its power sequence has finished or timed out. No failure is
  /// returned.
  virtual void turnOn() = 0;

  /// Removes the module's power; otherwise as turnOn().
  virtual void turnOff() = 0;
};
