// SPDX-License-Identifier: MIT
#include <iterator>

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

Entries describeBoard(const Hardware& hardware) {
  std::string straps;
  for (const int line : strapLines) {
    straps += hardware.lines[line].level ? '1' : '0';
  }
  return {{"", "straps", straps}};
}

void setLine(Hardware& hardware, const std::string& /*instance*/, const std::string& key,
             const std::string& value) {
  if (key.empty() || key.size() > 9 || key.find_first_not_of("0123456789") != std::string::npos ||
      std::stoi(key) >= boardLineCount) {
    throw std::runtime_error("not a line number from 0 to " + std::to_string(boardLineCount - 1));
  }
  gpio::setLine(hardware.lines[std::stoi(key)], value);
}

Entries describeLines(const Hardware& hardware) {
  Entries entries;
  for (int line = 0; line < boardLineCount; ++line) {
    entries.push_back({"", std::to_string(line), gpio::wordsOf(hardware.lines[line])});
  }
  return entries;
}

void addLine(const GpioLine& line, const std::string& directory, Tree& tree) {
  addFile(tree, directory + "/value", "", 0644);
  addFile(tree, directory + "/active_low", "", 0644);
  addFile(tree, directory + "/edge", "", 0644);
  if (line.condition != GpioLine::Condition::noDirection) {
    addFile(tree, directory + "/direction", "", 0644);
  }
}

void addChip(const Hardware& hardware, const gpio::Chip& chip, Tree& tree) {
  const std::string gpioClass = "/sys/class/gpio";
  const std::string name = "/gpiochip" + std::to_string(chip.base);
  const std::string directory = chip.directory + name;
  if (!chip.baseText.empty()) {
    addFile(tree, directory + "/base", chip.baseText + "\n");
  }
  addFile(tree, directory + "/label", chip.label + "\n");
  addFile(tree, directory + "/ngpio", std::to_string(chip.count) + "\n");
  if (chip.directory != gpioClass) {
    addLink(tree, gpioClass + name, directory);
  }
  for (int number = chip.base; number < chip.base + chip.count; ++number) {
    const GpioLine& line = *gpio::lineOf(hardware, number);
    if (line.exported && line.condition != GpioLine::Condition::missing) {
      addLine(line, gpioClass + "/gpio" + std::to_string(number), tree);
    }
  }
}

void addFiles(const Hardware& hardware, Tree& tree) {
  const std::string directory = "/sys/class/gpio";
  addFile(tree, directory + "/" + gpio::behaviourFile, "");
  addFile(tree, directory + "/export", "", 0200);
  addFile(tree, directory + "/unexport", "", 0200);
  for (const gpio::Chip& chip : gpio::chipsOf(hardware)) {
    addChip(hardware, chip, tree);
  }
}

constexpr Group groups[] = {{"board", false, nullptr, setBoard, describeBoard},
                            {"gpio", false, nullptr, setLine, describeLines}};

}  // namespace

const Part gpioPart = {groups,
                       std::size(groups),
                       addFiles,
                       {"/sys/class/gpio/", gpio::owns, gpio::open, gpio::store},
                       nullptr};

}  // namespace simulator
