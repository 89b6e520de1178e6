// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// What has come of a claim that was tried so many times.
struct Found {
  long tried = 0;
  std::string of;                     ///< what was tried, with its numbers
  std::vector<std::string> failures;  ///< one for each time that it did not hold
};

Found kills(long count, std::uint64_t seed);
Found fullDisks(long count, std::uint64_t seed);
Found places(long count, std::uint64_t seed);
Found ordinaryUser(long count, std::uint64_t seed);
