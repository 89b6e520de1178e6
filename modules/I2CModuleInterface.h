// SPDX-License-Identifier: MIT
#pragma once

#include "modules/ModuleControllerInterface.h"

class PowerControlInterface;

/// Controls a module that is powered through an expander on its system I2C bus.
class I2CModuleInterface : public ModuleControllerInterface {
 public:
  /// @param control  the module's power controller, made with `new` and owned from here on;
  ///                 not null
  explicit I2CModuleInterface(PowerControlInterface* control);

  /// Destroys the power controller; the module's power stays as it is.
  ~I2CModuleInterface() override;

  I2CModuleInterface(const I2CModuleInterface&) = delete;
  I2CModuleInterface& operator=(const I2CModuleInterface&) = delete;

  /// True, also while the module is off: its expander was found.
  bool isPresent() override;

  /// As PowerControlInterface::isPowerOn.
  bool isOn() override;

  /// As PowerControlInterface::PowerOn, which also says what is printed.
  void turnOn() override;

  /// As PowerControlInterface::PowerOff, which also says what is printed.
  void turnOff() override;

 private:
  PowerControlInterface* powerControl;
};
