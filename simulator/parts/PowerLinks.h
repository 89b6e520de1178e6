// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "simulator/shared/State.h"

/// The modules' power: the GPIO links below /sys/platform, "gpio_..._power_en" and
/// "gpio_..._seq_done". They lead to the first two lines of the module's expander or, for a module
/// that has none, to lines of a chip of their own.
namespace simulator::power {

bool hasLinks(std::uint32_t module);

/// The links of a module.
std::string enableLink(std::uint32_t module);
std::string doneLink(std::uint32_t module);

/// The number of a module's power-enable line, which its sequence-done line follows; negative while
/// its expander has been pulled.
int firstLine(const Hardware& hardware, std::uint32_t module);

/// The level that a power sequence drives on a line; nothing for other lines.
std::optional<bool> drivenLevel(const State& state, int number);

/// Whether the module is powered and its power-on sequence is done. Modules without power links
/// always are.
bool isUp(const State& state, std::uint32_t module);

/// Whether the clock source of a module is on.
bool hasClock(const Hardware& hardware, std::uint32_t module);

/// Switches it, with what follows for the module's link; nothing for a number that is no slot's.
void switchClock(State& state, std::uint32_t module, bool on);

/// Takes up the lines of modules that have appeared, and what the enable lines say.
void settle(State& state);

// See Attributes in Part.h.
bool owns(const std::string& path);
int open(const std::string& path, bool writing, std::string& content);
int store(const std::string& path, const std::string& text, std::size_t offset);

}  // namespace simulator::power
