// SPDX-License-Identifier: MIT
#include "simulator/parts/GpioLines.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <optional>
#include <utility>

#include "simulator/parts/Description.h"
#include "simulator/parts/I2cDevices.h"
#include "simulator/parts/Part.h"
#include "simulator/parts/PowerLinks.h"
#include "simulator/parts/Values.h"
#include "simulator/shared/Clock.h"

namespace simulator::gpio {

namespace {

using Condition = GpioLine::Condition;
using Edge = GpioLine::Edge;

constexpr const char* lineAttributes[] = {"value", "direction", "active_low", "edge"};

struct LineAttribute {
  int number;
  std::string name;
};

/// The line attribute of a path such as "gpio5/value".
std::optional<LineAttribute> lineAttribute(const std::string& path) {
  const std::size_t slash = path.find('/');
  const std::string digits = path.substr(0, slash).substr(path.compare(0, 4, "gpio") == 0 ? 4 : 0);
  if (slash == std::string::npos || digits.size() == slash || digits.empty() || digits.size() > 5 ||
      digits.find_first_not_of("0123456789") != std::string::npos ||
      !isLineAttribute(path.substr(slash + 1))) {
    return std::nullopt;
  }
  return LineAttribute{std::stoi(digits), path.substr(slash + 1)};
}

std::string withoutLineEnd(std::string text) {
  if (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text;
}

/// Reads a number as the kernel does, in any base and with one line end; 0 or an errno value.
int readNumber(const std::string& text, long& value) {
  const std::string digits = withoutLineEnd(text);
  char* end = nullptr;
  errno = 0;
  value = std::strtol(digits.c_str(), &end, 0);
  if (digits.empty() || *end != '\0' || std::isspace(static_cast<unsigned char>(digits[0])) != 0) {
    return EINVAL;
  }
  return errno;
}

/// Changes whether a line is exported, and its files with that.
void setExported(State& state, GpioLine& line, bool exported) {
  Tree before;
  gpioPart.addFiles(state.hardware, before);
  line.exported = exported;
  Tree after;
  gpioPart.addFiles(state.hardware, after);
  try {
    changeFiles(state.root, before, after);
  } catch (const std::filesystem::filesystem_error& error) {
    endProcess(std::string("the simulated /sys cannot be changed: ") + error.what());
  }
}

const GpioLine* find(const Hardware& hardware, long wanted) {
  const auto number = static_cast<std::uint32_t>(wanted);  // of the kernel's numbers, too
  const GpioLine* const line =
      number < 0x10000 ? lineOf(hardware, static_cast<int>(number)) : nullptr;
  return line != nullptr && line->condition != Condition::missing ? line : nullptr;
}

GpioLine* find(Hardware& hardware, long wanted) {
  return const_cast<GpioLine*>(find(std::as_const(hardware), wanted));
}

int exportLine(State& state, const std::string& text) {
  long number = 0;
  if (const int error = readNumber(text, number)) {
    return error;
  }
  GpioLine* const line = find(state.hardware, number);
  if (line == nullptr) {
    return EINVAL;
  }
  if (line->exported || line->condition == Condition::busy) {
    return EBUSY;
  }
  setExported(state, *line, true);
  return 0;
}

int unexportLine(State& state, const std::string& text) {
  long number = 0;
  if (const int error = readNumber(text, number)) {
    return error;
  }
  GpioLine* const line = find(state.hardware, number);
  if (line == nullptr || !line->exported) {
    return EINVAL;
  }
  line->edge = Edge::none;
  line->activeLow = false;
  setExported(state, *line, false);
  return 0;
}

int storeDirection(GpioLine& line, const std::string& text) {
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
  long value = 0;
  const int error = readNumber(text, value);
  if (error == 0) {
    line.driven = (value != 0) != line.activeLow;
  }
  return error;
}

int storeActiveLow(GpioLine& line, const std::string& text) {
  long value = 0;
  const int error = readNumber(text, value);
  if (error == 0) {
    line.activeLow = value != 0;
  }
  return error;
}

int storeEdge(GpioLine& line, const std::string& text) {
  const std::size_t edge = indexOf(edgeNames, text);
  if (edge == std::size(edgeNames)) {
    return EINVAL;
  }
  if (line.output && edge != 0) {
    return EIO;
  }
  line.edge = static_cast<Edge>(edge);
  return 0;
}

/// A word of a line's description and what it says.
struct Word {
  const char* text;
  void (*apply)(GpioLine& line);
  bool (*holds)(const GpioLine& line);
};

constexpr Word words[] = {
    {"low", [](GpioLine& line) { line.level = false; },
     [](const GpioLine& line) { return !line.level; }},
    {"high", [](GpioLine& line) { line.level = true; },
     [](const GpioLine& line) { return line.level; }},
    {"exported", [](GpioLine& line) { line.exported = true; },
     [](const GpioLine& line) { return line.exported; }},
    {"input", [](GpioLine& line) { line.output = false; },
     [](const GpioLine& /*line*/) { return false; }},
    {"output-low",
     [](GpioLine& line) {
       line.output = true;
       line.driven = false;
     },
     [](const GpioLine& line) { return line.output && !line.driven; }},
    {"output-high", [](GpioLine& line) { line.output = line.driven = true; },
     [](const GpioLine& line) { return line.output && line.driven; }},
    {"active-low", [](GpioLine& line) { line.activeLow = true; },
     [](const GpioLine& line) { return line.activeLow; }},
};

void applyWord(GpioLine& line, const std::string& text) {
  const std::size_t condition = indexOf(conditionNames, text);
  const std::size_t edge =
      text.compare(0, 5, "edge-") == 0 ? indexOf(edgeNames, text.substr(5)) : std::size(edgeNames);
  for (const Word& word : words) {
    if (text == word.text) {
      word.apply(line);
      return;
    }
  }
  if (condition < std::size(conditionNames)) {
    line.condition = static_cast<Condition>(condition);
  } else if (edge < std::size(edgeNames)) {
    line.edge = static_cast<Edge>(edge);
  } else {
    throw mustBe("low, high, missing, busy, no-direction, no-value or how the kernel has it", text);
  }
}

}  // namespace

void setLine(GpioLine& line, const std::string& description) {
  GpioLine result = line;
  result.condition = Condition::working;
  std::size_t begin = 0;
  do {
    const std::size_t end = std::min(description.find(' ', begin), description.size());
    applyWord(result, description.substr(begin, end - begin));
    begin = end + 1;
  } while (begin < description.size());
  line = result;
}

std::string wordsOf(const GpioLine& line) {
  std::string result;
  const auto add = [&](const std::string& word) { result += (result.empty() ? "" : " ") + word; };
  for (const Word& word : words) {
    if (word.holds(line)) {
      add(word.text);
    }
  }
  if (line.condition != Condition::working) {
    add(conditionNames[static_cast<std::size_t>(line.condition)]);
  }
  if (line.edge != Edge::none) {
    add(std::string("edge-") + edgeNames[static_cast<std::size_t>(line.edge)]);
  }
  return result;
}

std::vector<Chip> chipsOf(const Hardware& hardware) {
  std::vector<Chip> chips = {{0, boardLineCount, "talvero-sim", "/sys/class/gpio", "0"}};
  for (unsigned int module = 0; module < moduleCount; ++module) {
    const PowerSequence& power = hardware.power[module];
    if (power.present && power.expander < 0) {
      const int base = power::firstLine(hardware, module);
      chips.push_back({base, powerLineCount, "power", "/sys/class/gpio", std::to_string(base)});
    }
  }
  for (const I2cDevice& device : hardware.i2cDevices) {
    if (device.gpioBase != 0) {
      const std::string base = std::to_string(device.gpioBase);
      const std::string text = device.base[0] == '\0' ? base : std::string(device.base);
      chips.push_back({device.gpioBase, expanderLineCount, i2c::nameOf(device),
                       i2c::directoryOf(hardware, device) + "/gpio",
                       text == "missing" ? "" : text});
    }
  }
  return chips;
}

const GpioLine* lineOf(const Hardware& hardware, int number) {
  if (number >= 0 && number < boardLineCount) {
    return &hardware.lines[number];
  }
  for (const I2cDevice& device : hardware.i2cDevices) {
    const int line = number - device.gpioBase;
    if (device.gpioBase != 0 && line >= 0 && line < expanderLineCount) {
      return &device.lines[line];
    }
  }
  for (unsigned int module = 0; module < moduleCount; ++module) {
    const PowerSequence& power = hardware.power[module];
    const int line = number - power::firstLine(hardware, module);
    if (power.present && power.expander < 0 && line >= 0 && line < powerLineCount) {
      return &power.lines[line];
    }
  }
  return nullptr;
}

GpioLine* lineOf(Hardware& hardware, int number) {
  return const_cast<GpioLine*>(lineOf(std::as_const(hardware), number));
}

bool levelOf(const State& state, int number) {
  const GpioLine* const line = lineOf(state.hardware, number);
  if (line->output) {
    return line->driven;
  }
  return power::drivenLevel(state, number).value_or(line->level);
}

bool isLineAttribute(const std::string& name) {
  return indexOf(lineAttributes, name) < std::size(lineAttributes);
}

int openLine(const State& state, int number, const std::string& attribute, std::string& content) {
  const GpioLine* const line = find(state.hardware, number);
  if (line == nullptr || !line->exported) {
    return ENOENT;
  }
  if (attribute == "value") {
    content = levelOf(state, number) != line->activeLow ? "1\n" : "0\n";
    return line->condition == Condition::noValue ? EACCES : 0;
  }
  if (attribute == "direction") {
    content = line->output ? "out\n" : "in\n";
    return line->condition == Condition::noDirection ? ENOENT : 0;
  }
  content = attribute == "edge" ? edgeNames[static_cast<std::size_t>(line->edge)]
            : line->activeLow   ? "1"
                                : "0";
  content += "\n";
  return 0;
}

int storeLine(State& state, int number, const std::string& attribute, const std::string& text) {
  GpioLine* const line = find(state.hardware, number);
  if (line == nullptr || !line->exported) {
    return ENODEV;
  }
  settle(state);  // what time has brought about by now
  const int error = attribute == "value"        ? storeValue(*line, text)
                    : attribute == "direction"  ? storeDirection(*line, withoutLineEnd(text))
                    : attribute == "active_low" ? storeActiveLow(*line, text)
                                                : storeEdge(*line, withoutLineEnd(text));
  settle(state);
  return error;
}

bool owns(const std::string& path) {
  return path == behaviourFile || path == "export" || path == "unexport" || lineAttribute(path);
}

int open(const std::string& path, bool writing, std::string& content) {
  if (const std::optional<LineAttribute> attribute = lineAttribute(path)) {
    return openLine(*Locked(), attribute->number, attribute->name, content);
  }
  if (path == behaviourFile && !writing) {
    const Locked state;
    state->hardware.time = now(*state);
    content = describeBehaviour(state->hardware);
    return 0;
  }
  return writing && path != behaviourFile ? 0 : EACCES;
}

int store(const std::string& path, const std::string& text, std::size_t /*offset*/) {
  const Locked state;
  if (const std::optional<LineAttribute> attribute = lineAttribute(path)) {
    return storeLine(*state, attribute->number, attribute->name, text);
  }
  return path == "export" ? exportLine(*state, text) : unexportLine(*state, text);
}

}  // namespace simulator::gpio
