// SPDX-License-Identifier: MIT
#pragma once

#include <stdexcept>
#include <string>

#include "simulator/parts/Description.h"
#include "simulator/shared/Hardware.h"

namespace simulator {

/// A description that cannot be read. The text is one line with the file, group and key.
class DescriptionError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Reads a description file. Throws DescriptionError; where a newer version has written the
/// description, its text says so.
Hardware readDescription(const std::string& file);

/// Reads a description from a text; `name` stands for the file in error texts.
Hardware parseDescription(const std::string& text, const std::string& name = "description");

}  // namespace simulator
