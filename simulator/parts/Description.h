// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "simulator/shared/Hardware.h"

namespace simulator {

/// The shortest description of an instrument. What has a time is told from hardware.time on.
std::string describe(const Hardware& hardware);

/// A whole description file: comments of one line each, the first one the title; the version that
/// writes it, for others that read it; and what describe() says.
std::string descriptionFile(const std::vector<std::string>& comments, const Hardware& hardware);

/// The group that says the version, and its key.
constexpr char versionGroup[] = "description";
constexpr char versionKey[] = "version";

/// What describe() says of how the instrument behaves, which no reading of its hardware tells: what
/// is to come, and what follows from switching. One key in a line: group, key and value, with tabs
/// between them.
std::string describeBehaviour(const Hardware& hardware);

}  // namespace simulator
