// SPDX-License-Identifier: MIT
// The platform's classes: the clock sources of the simulated FPGA, and the stand-in's real look-up
// of buses over the simulated tree.

#include <stdexcept>
#include <string>

#include "platform/I2CDev.h"
#include "platform/SpbFPGA.h"
#include "simulator/parts/Changes.h"
#include "simulator/parts/PowerLinks.h"
#include "simulator/preload/Next.h"
#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

using simulator::trace;

// For programs that say which library they run with.
extern "C" const char* talveroPlatformNote() { return "simulated"; }

namespace {

void switchClock(unsigned int slot, bool on) {
  simulator::requireInstrument("the board FPGA");
  const std::string text = (on ? "clock on " : "clock off ") + std::to_string(slot);
  const int error = simulator::admit(text);
  if (error == 0) {
    simulator::power::switchClock(*simulator::Locked(), slot, on);
  }
  simulator::traceResult(text, error);
}

}  // namespace

SpbFPGA::SpbFPGA() {
  simulator::requireInstrument("the board FPGA");
  if (simulator::admit("fpga open") != 0) {
    trace("fpga open: refused");
    throw std::runtime_error("no access to the FPGA");
  }
  trace("fpga open");
}

SpbFPGA::~SpbFPGA() { trace("fpga close"); }

void SpbFPGA::TurnOnModuleClockSource(unsigned int slot) { switchClock(slot, true); }

void SpbFPGA::TurnOffModuleClockSource(unsigned int slot) { switchClock(slot, false); }

std::string I2CDev::FindI2CBusNameOfMuxChannel(std::string busName, int channel) {
  static const auto real = simulator::next(&I2CDev::FindI2CBusNameOfMuxChannel,
                                           "_ZN6I2CDev26FindI2CBusNameOfMuxChannelENSt7__"
                                           "cxx1112basic_stringIcSt11char_traitsIcESaIcEEEi");
  simulator::requireInstrument("the I2C buses");
  const std::string question = "bus behind " + busName + " channel " + std::to_string(channel);
  if (simulator::admit(question) != 0) {
    trace(question + ": refused");
    throw std::runtime_error("no access to the I2C buses");
  }
  std::string bus;
  {
    const simulator::Nested nested;
    bus = real(busName, channel);
  }
  trace(question + " " + simulator::inQuotes(bus));
  return bus;
}
