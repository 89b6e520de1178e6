// SPDX-License-Identifier: MIT
#include "modules/EmptyModuleInterface.h"

EmptyModuleInterface::EmptyModuleInterface() = default;

EmptyModuleInterface::~EmptyModuleInterface() = default;

bool EmptyModuleInterface::isPresent() { return false; }

bool EmptyModuleInterface::isOn() { return false; }

void EmptyModuleInterface::turnOn() {}

void EmptyModuleInterface::turnOff() {}
