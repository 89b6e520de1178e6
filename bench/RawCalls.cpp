// SPDX-License-Identifier: MIT
#include "bench/RawCalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace raw {

namespace {

constexpr char exportFile[] = "/sys/class/gpio/export";

void check(bool success, const char* path) {
  if (!success) {
    throw std::system_error(errno, std::generic_category(), path);
  }
}

}  // namespace

void writeFile(const char* path, const char* text) {
  const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0666);
  check(file >= 0, path);
  check(write(file, text, std::strlen(text)) >= 0, path);
  check(close(file) == 0, path);
}

std::size_t readFile(const char* path, char* buffer, std::size_t size) {
  const int file = open(path, O_RDONLY);
  check(file >= 0, path);
  const ssize_t length = read(file, buffer, size);
  check(length >= 0, path);
  check(close(file) == 0, path);
  return static_cast<std::size_t>(length);
}

std::size_t readDirectory(const char* path) {
  DIR* directory = opendir(path);
  check(directory != nullptr, path);
  std::size_t count = 0;
  while (readdir(directory) != nullptr) {
    ++count;
  }
  check(closedir(directory) == 0, path);
  return count;
}

GpioLine::GpioLine(int gpio)
    : name(std::to_string(gpio)),
      direction("/sys/class/gpio/gpio" + name + "/direction"),
      value("/sys/class/gpio/gpio" + name + "/value") {}

bool readLine(const GpioLine& line) {
  char value[4096];
  writeFile(exportFile, line.name.c_str());
  writeFile(line.direction.c_str(), "in");
  return readFile(line.value.c_str(), value, sizeof value) == 2 && value[0] == '1';
}

void writeLine(const GpioLine& line, const char* value) {
  writeFile(exportFile, line.name.c_str());
  writeFile(line.direction.c_str(), "out");
  writeFile(line.value.c_str(), value);
}

}  // namespace raw
