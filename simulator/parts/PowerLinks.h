// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>

#include "simulator/shared/State.h"

/// The modules' power: the GPIO links below /sys/platform, "gpio_..._power_en" and
/// "gpio_..._seq_done".
namespace simulator::power {

bool hasLinks(std::uint32_t module);

/// The directories of a module's power-enable and sequence-done link.
std::string enableLink(std::uint32_t module);
std::string doneLink(std::uint32_t module);

/// Whether the module is powered and its power-on sequence is done. Modules without power links
/// always are.
bool isUp(const State& state, std::uint32_t module);

// See Attributes in Part.h.
bool owns(const std::string& path);
int open(const std::string& path, bool writing, std::string& content);
int store(const std::string& path, const std::string& text);

}  // namespace simulator::power
