// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "simulator/shared/Hardware.h"

namespace simulator {

/// What programs have left switched on an instrument, each in words such as "PRBS on at port1":
/// what tests put back when they are done, and what the next one would stumble over.
std::vector<std::string> leftBehind(const Hardware& before, const Hardware& after);

/// What a description says about accesses or times that have not been, by its groups: a test that
/// was to meet with it has not.
std::vector<std::string> neverMet(const Hardware& after);

}  // namespace simulator
