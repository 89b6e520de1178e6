// SPDX-License-Identifier: MIT
#include "platform/SpbFPGA.h"

// For programs that say which library they run with.
extern "C" const char* talveroPlatformNote() { return "stand-in, switches no clock source"; }

// Without the instrument's FPGA there is no clock source to switch.

SpbFPGA::SpbFPGA() = default;

SpbFPGA::~SpbFPGA() = default;

void SpbFPGA::TurnOnModuleClockSource(unsigned int /*slot*/) {}

void SpbFPGA::TurnOffModuleClockSource(unsigned int /*slot*/) {}
