// SPDX-License-Identifier: MIT
#pragma once

#include <stdexcept>
#include <string>

#include "bist/Report.h"

/// A file that is written, which takes the place of the one asked for once all is in it: what that
/// had before is kept until then. What is no file itself, such as /dev/stdout, keeps its place, and
/// so does a file in a directory where nobody may create one. Removed with the object, and by an
/// interruption, unless it has been written.
class Draft {
 public:
  /// Throws std::runtime_error when the file cannot be written.
  Draft(Report& toReport, const std::string& fileName);
  ~Draft();
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;

  /// Throws as the constructor does.
  void write(const std::string& text);

 private:
  std::runtime_error cannotBeWritten(int error) const;

  Report& report;
  std::string file;
  std::string name;  // of a file that takes the other one's place; or empty
  int fd = -1;
};
