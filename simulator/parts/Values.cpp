// SPDX-License-Identifier: MIT
#include "simulator/parts/Values.h"

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <regex>

namespace simulator {

std::runtime_error mustBe(const std::string& expected, const std::string& value) {
  return std::runtime_error("must be " + expected + ", not \"" + value + "\"");
}

std::runtime_error unknownKey() { return std::runtime_error("unknown key"); }

std::runtime_error tooLong(std::size_t longest) {
  return std::runtime_error("longer than " + std::to_string(longest) + " characters");
}

std::string printable(const std::string& text) {
  std::string result = text;
  char before = '\0';
  for (char& letter : result) {
    const auto byte = static_cast<unsigned char>(letter);
    const bool isControl = byte < ' ' || byte == 0x7F || (before == '\xC2' && byte < 0xA0);
    before = letter;
    letter = isControl ? '?' : letter;
  }
  return result;
}

std::uint32_t number(const std::string& value) {
  char* end = nullptr;
  errno = 0;
  const unsigned long result = std::strtoul(value.c_str(), &end, 0);
  if (value.empty() || std::isdigit(static_cast<unsigned char>(value[0])) == 0 || *end != '\0' ||
      errno != 0 || result > 0xFFFFFFFF) {
    throw mustBe("a number from 0 to 0xffffffff", value);
  }
  return static_cast<std::uint32_t>(result);
}

std::int64_t duration(const std::string& value) {
  static const std::regex seconds("[0-9]{1,6}([.][0-9]{1,6})?");
  if (!std::regex_match(value, seconds)) {
    throw mustBe("a time in seconds such as 2.5", value);
  }
  return std::llround(std::stod(value) * 1e6);
}

std::string secondsText(std::int64_t microseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(microseconds / 1000000),
                static_cast<long long>(microseconds % 1000000));
  std::string result = text;
  result.erase(result.find_last_not_of('0') + 1);
  return result.back() == '.' ? result + "0" : result;
}

std::string hexText(std::uint32_t number) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%x", number);
  return text;
}

bool choice(const std::string& value, const char* first, const char* second) {
  if (value != first && value != second) {
    throw mustBe(std::string(first) + " or " + second, value);
  }
  return value == first;
}

void setText(char* place, std::size_t size, const std::string& value) {
  if (value.size() >= size) {
    throw tooLong(size - 1);
  }
  value.copy(place, value.size());
  place[value.size()] = '\0';
}

}  // namespace simulator
