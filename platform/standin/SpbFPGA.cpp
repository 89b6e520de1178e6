// SPDX-License-Identifier: MIT
#include "platform/SpbFPGA.h"

// Without the instrument's FPGA there is no clock source to switch.

SpbFPGA::SpbFPGA() = default;

SpbFPGA::~SpbFPGA() = default;

void SpbFPGA::TurnOnModuleClockSource(unsigned int /*slot*/) {}

void SpbFPGA::TurnOffModuleClockSource(unsigned int /*slot*/) {}
