// SPDX-License-Identifier: MIT
#pragma once

#include <vector>

#include "bench/Operation.h"

/// Processor time, user and system, of one call of each, in nanoseconds. All are measured in one
/// run, in so many turns.
std::vector<double> processorTimes(const std::vector<Call>& calls, int turns);
