// SPDX-License-Identifier: MIT
#pragma once

#include <optional>

#include "bench/Operation.h"

/// System calls that one call makes, counted by tracing a child process; nothing where tracing is
/// not permitted.
std::optional<long> systemCalls(Call call);
