// SPDX-License-Identifier: MIT
#pragma once

class ModuleControllerInterface;

/// Makes the controller that fits what is found in a slot.
class ModuleControllerInterfaceFactory {
 public:
  /// Probes a slot for a power expander, and makes an I2CModuleInterface where there is one and an
  /// EmptyModuleInterface where there is none, which is no error. Nothing is printed.
  ///
  /// @param slot  slot number; every number is probed, a negative one as the module number that it
  ///              converts to
  /// @return a new controller, never null; the caller deletes it
  ///
  /// Whatever the constructor of Udev_PCA9536 throws passes through.
  static ModuleControllerInterface* createModuleInterface(int slot);
};
