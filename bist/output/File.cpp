// SPDX-License-Identifier: MIT
#include <stdexcept>

#include "bist/output/Output.h"

FileOutput::FileOutput(const std::string& fileName) : out(fileName), name(fileName) {
  requireWritten();
}

void FileOutput::requireWritten() {
  if (!out.flush()) {
    throw std::runtime_error(name + ": cannot be written");
  }
}
