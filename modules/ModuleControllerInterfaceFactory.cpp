// SPDX-License-Identifier: MIT
#include "modules/ModuleControllerInterfaceFactory.h"

#include <memory>

#include "modules/EmptyModuleInterface.h"
#include "modules/I2CModuleInterface.h"
#include "modules/Udev_PCA9536.h"

ModuleControllerInterface* ModuleControllerInterfaceFactory::createModuleInterface(int slot) {
  auto powerControl = std::make_unique<Udev_PCA9536>(static_cast<unsigned int>(slot));
  if (powerControl->GetPath().empty()) {
    powerControl.reset();
    return new EmptyModuleInterface;
  }
  // The controller's memory is allocated before the argument is evaluated: a failure loses nothing.
  return new I2CModuleInterface(powerControl.release());
}
