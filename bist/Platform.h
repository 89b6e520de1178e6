// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

/// The libraries in this process that define the platform's classes, by file name, the one in use
/// first. One that says what it is has that behind it, in parentheses: the stand-in, the simulator.
std::vector<std::string> platformLibraries();
