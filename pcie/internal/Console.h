// SPDX-License-Identifier: MIT
#pragma once

#include <charconv>
#include <iostream>
#include <string>

// Lines are put together here and written unformatted, so that no setting the caller has left on
// the stream (base, prefix, width, locale) shows in them or is used up by them.

inline void printLine(std::ostream& stream, const std::string& line) {
  stream.write(line.data(), static_cast<std::streamsize>(line.size())) << std::endl;
}

/// Prints the label and the number in hexadecimal to std::cout, which is left in decimal.
inline void printHexLine(std::string label, unsigned int number) {
  char digits[2 * sizeof number];
  char* const end = std::to_chars(digits, digits + sizeof digits, number, 16).ptr;
  printLine(std::cout, label.append(digits, end));
  std::cout << std::dec;
}
