// SPDX-License-Identifier: MIT
#pragma once

namespace simulator {

/// Why the dynamic linker would not put the simulated instrument behind a program: the end of a
/// sentence about it, such as "is statically linked", or null if it would. Such a program would
/// reach the host's own hardware. A script is what its interpreter is.
///
/// Allocates nothing and takes no lock: it is called between fork and exec.
const char* reasonAgainst(const char* program);

/// The same for the program that a descriptor is open on.
const char* reasonAgainst(int program);

}  // namespace simulator
