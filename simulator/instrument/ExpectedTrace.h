// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

namespace simulator {

/// A trace from before, as what a program is to do again. Its timestamps, if it has any, do not
/// count.
class ExpectedTrace {
 public:
  /// Throws std::runtime_error when the file cannot be read.
  explicit ExpectedTrace(const std::string& name);

  /// Tells in three lines where another trace differs first; empty where it does not.
  std::string differenceFrom(const std::vector<std::string>& trace) const;

 private:
  std::string file;
  std::vector<std::string> lines;
};

}  // namespace simulator
