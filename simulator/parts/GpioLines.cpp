// SPDX-License-Identifier: MIT
#include "simulator/parts/GpioLines.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <regex>

#include "simulator/shared/State.h"
#include "simulator/shared/Trace.h"

namespace simulator::gpio {

namespace {

using Condition = GpioLine::Condition;

struct LineAttribute {
  int number;
  bool isValue;
};

std::optional<LineAttribute> lineAttribute(const std::string& path) {
  // Never destroyed: programs write to attributes while they exit.
  static const auto& pattern = *new std::regex("gpio([0-9]{1,9})/(direction|value)");
  std::smatch match;
  if (!std::regex_match(path, match, pattern)) {
    return std::nullopt;
  }
  return LineAttribute{std::stoi(match[1]), match[2] == "value"};
}

// The kernel takes a number in any base and one line end.
std::optional<long> number(const std::string& text) {
  const std::string digits = text.substr(0, text.find_last_not_of('\n') + 1);
  char* end = nullptr;
  const long value = std::strtol(digits.c_str(), &end, 0);
  if (digits.empty() || *end != '\0' || std::isspace(static_cast<unsigned char>(digits[0])) != 0) {
    return std::nullopt;
  }
  return value;
}

GpioLine* find(const Locked& state, long number) {
  const bool known = number >= 0 && number < gpioLineCount &&
                     state->hardware.lines[number].condition != Condition::missing;
  return known ? &state->hardware.lines[number] : nullptr;
}

// Directory and files of an exported line are there to be listed and tested for; what the files
// hold is made up whenever one is opened.
std::filesystem::path lineDirectory(const Locked& state, long number) {
  return std::string(state->root) + "/sys/class/gpio/gpio" + std::to_string(number);
}

int exportLine(const std::string& text) {
  const Locked state;
  const std::optional<long> wanted = number(text);
  GpioLine* line = wanted ? find(state, *wanted) : nullptr;
  if (line == nullptr) {
    return EINVAL;
  }
  if (line->exported) {
    return EBUSY;
  }
  line->exported = true;
  const std::filesystem::path directory = lineDirectory(state, *wanted);
  const Nested nested;
  std::error_code error;
  std::filesystem::create_directory(directory, error);
  if (error) {
    endProcess("the simulated /sys cannot be changed: " + error.message());
  }
  std::ofstream value(directory / "value");
  if (line->condition != Condition::noDirection) {
    std::ofstream direction(directory / "direction");
  }
  return 0;
}

int unexportLine(const std::string& text) {
  const Locked state;
  const std::optional<long> wanted = number(text);
  GpioLine* line = wanted ? find(state, *wanted) : nullptr;
  if (line == nullptr || !line->exported) {
    return EINVAL;
  }
  line->exported = false;
  const Nested nested;
  std::error_code error;
  std::filesystem::remove_all(lineDirectory(state, *wanted), error);
  if (error) {
    endProcess("the simulated /sys cannot be changed: " + error.message());
  }
  return 0;
}

int storeDirection(GpioLine& line, std::string text) {
  if (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  if (text != "in" && text != "out" && text != "low" && text != "high") {
    return EINVAL;
  }
  line.output = text != "in";
  line.driven = text == "high";
  return 0;
}

int storeValue(GpioLine& line, const std::string& text) {
  if (!line.output) {
    return EPERM;
  }
  const std::optional<long> value = number(text);
  if (!value) {
    return EINVAL;
  }
  line.driven = *value != 0;
  return 0;
}

}  // namespace

bool owns(const std::string& path) {
  return path == "export" || path == "unexport" || lineAttribute(path);
}

int open(const std::string& path, bool writing, std::string& content) {
  const std::optional<LineAttribute> attribute = lineAttribute(path);
  if (!attribute) {
    return !writing || faultIsOn(gpioExport) ? EACCES : 0;
  }
  const Locked state;
  const GpioLine* line = find(state, attribute->number);
  if (line == nullptr || !line->exported) {
    return ENOENT;
  }
  if (attribute->isValue) {
    content = (line->output ? line->driven : line->level) ? "1\n" : "0\n";
    return line->condition == Condition::noValue ? EACCES : 0;
  }
  content = line->output ? "out\n" : "in\n";
  return line->condition == Condition::noDirection ? ENOENT : 0;
}

int store(const std::string& path, const std::string& text) {
  const std::optional<LineAttribute> attribute = lineAttribute(path);
  if (!attribute) {
    return path == "export" ? exportLine(text) : unexportLine(text);
  }
  const Locked state;
  GpioLine* line = find(state, attribute->number);
  if (line == nullptr || !line->exported) {
    return ENODEV;
  }
  return attribute->isValue ? storeValue(*line, text) : storeDirection(*line, text);
}

}  // namespace simulator::gpio
