// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <utility>

#include "bist/Machine.h"
#include "bist/capture/Capture.h"

namespace {

namespace fs = std::filesystem;

constexpr char gpioClass[] = "/sys/class/gpio/";

/// The lines of the board that the library knows. Others are not exported, which could change what
/// their pins are used for.
std::set<int> boardLines() {
  std::set<int> lines;
  for (const char* const line : strapLines) {
    lines.insert(std::atoi(line));
  }
  for (const char* const line : presenceLines) {
    if (line != nullptr) {
      lines.insert(std::atoi(line));
    }
  }
  return lines;
}

int writeNumber(const char* file, int number) {
  const int fd = ::open((std::string(gpioClass) + file).c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    return errno;
  }
  const std::string text = std::to_string(number);
  const int error = ::write(fd, text.data(), text.size()) < 0 ? errno : 0;
  ::close(fd);
  return error;
}

std::string directoryOf(int number) { return gpioClass + ("gpio" + std::to_string(number)); }

/// A line that is exported while the object exists, and that signals cannot leave so.
class ExportedLine {
 public:
  explicit ExportedLine(int lineNumber) : number(lineNumber) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &signals);
    error = writeNumber("export", number);
    isExported = error == 0;
  }
  ~ExportedLine() {
    release();
    pthread_sigmask(SIG_SETMASK, &signals, nullptr);
  }
  ExportedLine(const ExportedLine&) = delete;
  ExportedLine& operator=(const ExportedLine&) = delete;

  /// Unexports the line; an errno value where that cannot be.
  int release() { return std::exchange(isExported, false) ? writeNumber("unexport", number) : 0; }

  int error = 0;  ///< an errno value where it could not be exported

 private:
  int number;
  bool isExported;
  sigset_t signals{};
};

std::string nameOf(const Capture::Line& line) {
  return "line " + std::to_string(line.number) +
         (line.expander.empty()
              ? ""
              : " (" + line.expander + " line " + std::to_string(line.offset) + ")");
}

/// Whether a power sequence drives the line.
bool followsPower(const Capture& capture, int number) {
  return std::any_of(capture.powerLinks.begin(), capture.powerLinks.end(),
                     [&](const auto& link) { return link.isDone && link.number == number; });
}

/// Reads an exported line; the words that describe it.
std::string readLine(Capture& capture, Capture::Line line, bool exported) {
  const std::string directory = directoryOf(line.number);
  std::string direction;
  std::string value;
  const int noDirection = readFile(directory + "/direction", direction);
  const int noValue = readFile(directory + "/value", value);
  // Not every line has these.
  const std::string edge = capture.attribute(directory + "/edge");
  const std::string activeLow = capture.attribute(directory + "/active_low");
  const bool inverted = withoutEnd(activeLow) == "1";
  const bool high = (withoutEnd(value) == "1") != inverted;
  const bool output = withoutEnd(direction) == "out";
  std::string words = high && !output && !followsPower(capture, line.number) ? "high" : "low";
  words += exported ? " exported" : "";
  words += !output ? "" : high ? " output-high" : " output-low";
  words += inverted ? " active-low" : "";
  if (noDirection != 0) {
    capture.cannotRead(nameOf(line) + " direction", noDirection);
    words += " no-direction";
  }
  if (noValue != 0) {
    capture.cannotRead(nameOf(line) + " value", noValue);
    words += " no-value";
  } else {
    capture.foundSomething = true;
  }
  line.attributes = {{"value", withoutEnd(value)},
                     {"direction", withoutEnd(direction)},
                     {"active_low", withoutEnd(activeLow)},
                     {"edge", edge}};
  capture.lines.push_back(line);
  if (!edge.empty() && edge != "none") {
    words += " edge-" + edge;
  }
  return words;
}

/// A line, exported for as long as that takes; nothing where it is left out.
std::string wordsOf(Capture& capture, const Capture::Line& line) {
  std::error_code ignored;
  if (fs::exists(directoryOf(line.number), ignored)) {
    return readLine(capture, line, true);
  }
  if (!capture.exportsLines) {
    capture.leftOut.push_back(nameOf(line));
    return "";
  }
  ExportedLine exported(line.number);
  if (exported.error == 0) {
    std::string words = readLine(capture, line, false);
    if (const int error = exported.release()) {
      capture.cannotRead(nameOf(line) + " cannot be unexported again", error);
    }
    return words;
  }
  capture.cannotRead(nameOf(line), exported.error);
  return exported.error == EINVAL ? "low missing" : exported.error == EBUSY ? "low busy" : "";
}

/// The numbers of lines that are exported.
std::set<int> exportedLines(Capture& capture) {
  std::set<int> numbers;
  for (const std::string& name : capture.namesIn(gpioClass)) {
    if (name.size() > 4 && name.compare(0, 4, "gpio") == 0 &&
        name.find_first_not_of("0123456789", 4) == std::string::npos) {
      numbers.insert(std::atoi(name.c_str() + 4));
    }
  }
  return numbers;
}

/// The line of a number, which one of the expanders may have.
Capture::Line lineOf(const Capture& capture, int number) {
  for (const Capture::Chip& chip : capture.chips) {
    if (number >= chip.base && number < chip.base + chip.count) {
      return {number, chip.expander, number - chip.base, {}};
    }
  }
  return {number, "", number, {}};
}

}  // namespace

void captureLines(Capture& capture) {
  std::error_code ignored;
  if (!fs::exists(gpioClass, ignored)) {
    capture.cannotRead(gpioClass, ENOENT);
    return;
  }
  std::set<int> numbers = exportedLines(capture);
  numbers.merge(boardLines());
  for (const Capture::Chip& chip : capture.chips) {
    for (int number = chip.base; number < chip.base + chip.count; ++number) {
      numbers.insert(number);
    }
  }
  for (const int number : numbers) {
    const Capture::Line line = lineOf(capture, number);
    const std::string words = wordsOf(capture, line);
    if (words.empty()) {
      continue;
    }
    if (!line.expander.empty()) {
      capture.say("expander " + line.expander, std::to_string(line.offset), words);
    } else if (number < simulator::boardLineCount) {
      capture.say("gpio", std::to_string(number), words);
    }  // of others, the comparison tells
  }
}
