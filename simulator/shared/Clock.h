// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

#include "simulator/shared/State.h"

namespace simulator {

/// Time since the instrument started, microseconds, on the host's clock or, in fast mode, on the
/// instrument's own; while a change is made, when it was due.
std::int64_t now(const State& state);

/// The host's clock, microseconds.
std::int64_t hostTime();
std::int64_t hostNanoseconds();

}  // namespace simulator
