// SPDX-License-Identifier: MIT
#pragma once

#include "modules/ModuleControllerInterface.h"

/// Controls a slot in which no power expander was found: nothing is present, nothing is ever on,
/// and commands have no effect. Nothing is printed.
class EmptyModuleInterface : public ModuleControllerInterface {
 public:
  EmptyModuleInterface();
  ~EmptyModuleInterface() override;

  /// False.
  bool isPresent() override;

  /// False.
  bool isOn() override;

  /// Does nothing.
  void turnOn() override;

  /// Does nothing.
  void turnOff() override;
};
