// SPDX-License-Identifier: MIT
#pragma once

#include <string>

namespace simulator {

/// Appends a line to the trace. What happens inside a call that is itself in the trace, such as
/// libudev's own reading of /sys, is left out: see Nested.
void trace(const std::string& line);

/// Appends "line" or, for a refused access, "line: ENOENT" and the like.
void traceResult(const std::string& line, int error);

/// Text in double quotes, with line ends and other control characters escaped.
std::string inQuotes(const std::string& text);

/// While one exists, this thread's file accesses belong to a traced call and are not traced.
class Nested {
 public:
  Nested();
  ~Nested();
  Nested(const Nested&) = delete;
  Nested& operator=(const Nested&) = delete;
};

bool nested();

}  // namespace simulator
