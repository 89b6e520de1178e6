// SPDX-License-Identifier: MIT
#include "modules/I2CModuleInterface.h"

#include "modules/PowerControlInterface.h"

I2CModuleInterface::I2CModuleInterface(PowerControlInterface* control) : powerControl(control) {}

I2CModuleInterface::~I2CModuleInterface() { delete powerControl; }

bool I2CModuleInterface::isPresent() { return true; }

bool I2CModuleInterface::isOn() { return powerControl->isPowerOn(); }

void I2CModuleInterface::turnOn() { powerControl->PowerOn(); }

void I2CModuleInterface::turnOff() { powerControl->PowerOff(); }
