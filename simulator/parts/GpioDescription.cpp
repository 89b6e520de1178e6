// SPDX-License-Identifier: MIT
#include <regex>

#include "simulator/parts/GpioLines.h"
#include "simulator/parts/Part.h"
#include "simulator/parts/Values.h"

namespace simulator {

namespace {

// Lines of the strap bits, bit 5 first.
constexpr int strapLines[] = {135, 171, 170, 169, 168, 167};

void setBoard(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
              const std::string& value) {
  if (key != "straps") {
    throw unknownKey();
  }
  if (value.size() != std::size(strapLines) || value.find_first_not_of("01") != std::string::npos) {
    throw mustBe("six characters 0 and 1, bit 5 first", value);
  }
  for (std::size_t bit = 0; bit < value.size(); ++bit) {
    hardware.lines[strapLines[bit]].level = value[bit] == '1';
  }
}

void setLine(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
             const std::string& value) {
  static const std::regex number("[0-9]{1,9}");
  if (!std::regex_match(key, number) || std::stoi(key) >= gpioLineCount) {
    throw std::runtime_error("not a line number from 0 to " + std::to_string(gpioLineCount - 1));
  }
  constexpr const char* conditions[] = {"", "missing", "no-direction", "no-value"};
  static_assert(std::size(conditions) == GpioLine::conditionCount, "each condition has a name");
  GpioLine& line = hardware.lines[std::stoi(key)];
  if (value == "low" || value == "high") {
    line.level = value == "high";
    return;
  }
  const std::size_t condition = indexOf(conditions, value);
  if (value.empty() || condition == std::size(conditions)) {
    throw mustBe("low, high, missing, no-direction or no-value", value);
  }
  line.condition = static_cast<GpioLine::Condition>(condition);
}

void createTree(const Hardware& /*hardware*/, const std::filesystem::path& root) {
  const std::filesystem::path directory = root / "sys/class/gpio";
  createFile(directory / ".talvero-sim");
  createFile(directory / "export");
  createFile(directory / "unexport");
  createFile(directory / "gpiochip0/base", "0\n");
  createFile(directory / "gpiochip0/label", "talvero-sim\n");
  createFile(directory / "gpiochip0/ngpio", std::to_string(gpioLineCount) + "\n");
}

constexpr Group groups[] = {{"board", false, nullptr, setBoard}, {"gpio", false, nullptr, setLine}};

}  // namespace

const Part gpioPart = {groups,
                       std::size(groups),
                       createTree,
                       {"/sys/class/gpio/", gpio::owns, gpio::open, gpio::store}};

}  // namespace simulator
