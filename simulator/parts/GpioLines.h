// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "simulator/shared/State.h"

/// The kernel's sysfs GPIO interface: chips, the lines that they have, and the attributes of
/// exported lines, with the kernel's refusals.
namespace simulator::gpio {

/// The file by which a process finds that it is on an instrument. It holds what describeBehaviour()
/// says of that, for those who write a description of what they read.
constexpr char behaviourFile[] = ".talvero-sim";

/// A chip that the kernel knows: the board's, an expander's, or one that has the power links of a
/// module without an expander.
struct Chip {
  int base;  ///< number of its first line
  int count;
  std::string label;
  std::string directory;  ///< below which it shows itself
  std::string baseText;   ///< what its file "base" holds; empty for no such file
};

std::vector<Chip> chipsOf(const Hardware& hardware);

/// The line of a number; null when no chip has it.
const GpioLine* lineOf(const Hardware& hardware, int number);
GpioLine* lineOf(Hardware& hardware, int number);

/// The level of a line as the hardware has it, whoever drives it.
bool levelOf(const State& state, int number);

/// Opens or writes an attribute of an exported line, such as "value". Results are 0 or an errno
/// value.
int openLine(const State& state, int number, const std::string& attribute, std::string& content);
int storeLine(State& state, int number, const std::string& attribute, const std::string& text);

bool isLineAttribute(const std::string& name);

// Line in a description: words that say what it is.
void setLine(GpioLine& line, const std::string& words);
std::string wordsOf(const GpioLine& line);

// See Attributes in Part.h.
bool owns(const std::string& path);
int open(const std::string& path, bool writing, std::string& content);
int store(const std::string& path, const std::string& text, std::size_t offset);

}  // namespace simulator::gpio
