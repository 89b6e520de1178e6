// SPDX-License-Identifier: MIT
#pragma once

#include <cstddef>
#include <string>

/// What floors are made of: bare calls on files, each checked for failure and nothing more. All of
/// them throw std::system_error.
namespace raw {

/// Opens a file as the library does, replacing its content, writes a text in one call and closes
/// it.
void writeFile(const char* path, const char* text);

/// Reads the beginning of a file in one call; returns the number of bytes.
std::size_t readFile(const char* path, char* buffer, std::size_t size);

/// Reads all entries of a directory; returns their number.
std::size_t readDirectory(const char* path);

/// A GPIO line with its file names put together beforehand.
struct GpioLine {
  explicit GpioLine(int gpio);

  std::string name;
  std::string direction;
  std::string value;
};

/// Exports a line, makes it an input and reads it; true when it is high.
bool readLine(const GpioLine& line);

/// Exports a line, makes it an output and writes its value.
void writeLine(const GpioLine& line, const char* value);

}  // namespace raw
