// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// The calls that the library makes to the outside: each function that it takes from another
/// library and that can fail. This program's own definitions come before those, count the calls,
/// let one of them fail, and pass the others on. What is called on their behalf does not count.
namespace outside {

/// Counts from now on, and lets the call of that number fail, counted from 0; if `forever`, that
/// function's later calls, too. None fails without a number that large.
void watch(std::size_t failing, bool forever);

/// Lets nothing fail any more, and counts no longer.
void stop();

/// The functions called since watch(), in order.
std::vector<std::string> calls();

/// What has been taken since watch() and not given back: streams, directories, udev objects, and
/// blocks of memory.
struct Kept {
  long handles = 0;
  long blocks = 0;
};
Kept kept();

}  // namespace outside
