// SPDX-License-Identifier: MIT
#include "modules/PowerControlInterface.h"

PowerControlInterface::~PowerControlInterface() = default;
