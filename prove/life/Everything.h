// SPDX-License-Identifier: MIT
#pragma once

#include <string>

/// Constructs an object of each class on the shipped instrument "full", and asks it. What is wrong;
/// empty for nothing.
std::string wrongOfEverything();

/// The same, in less time, of one class for each way in which the library reaches the hardware.
std::string wrongOfEachDoor();
