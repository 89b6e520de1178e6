// SPDX-License-Identifier: MIT
#include "modules/ModuleControllerInterface.h"

ModuleControllerInterface::~ModuleControllerInterface() = default;
