// SPDX-License-Identifier: MIT
#include "bist/capture/Capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <stdexcept>

#include "simulator/parts/Changes.h"
#include "simulator/parts/GpioLines.h"
#include "simulator/parts/I2cDevices.h"
#include "simulator/parts/PciRegisters.h"
#include "simulator/parts/PowerLinks.h"
#include "simulator/parts/Values.h"

void Capture::begin(const std::string& group) {
  std::string instance;
  simulator::groupOf(group, instance).begin(*hardware, instance);
}

void Capture::say(const std::string& group, const std::string& key, const std::string& value) {
  // A description's values are lines that do not begin with a blank.
  const bool isLine = value.find(' ') != 0 && simulator::printable(value) == value;
  try {
    if (!isLine) {
      throw std::runtime_error("not a line of text");
    }
    if (key.empty()) {
      begin(group);
    } else {
      simulator::apply(*hardware, {group, key, value});
    }
  } catch (const std::runtime_error& reason) {
    remark("[" + group + "] " + key + "=" + value + ": " + reason.what());
  }
}

void Capture::remark(const std::string& text) { notSaid.push_back(simulator::printable(text)); }

void Capture::cannotRead(const std::string& what, int error) {
  notRead.push_back(what + ": " + errorText(error));
}

std::string Capture::attribute(const std::string& file) {
  std::string content;
  const int error = readFile(file, content);
  if (error != 0 && error != ENOENT) {
    cannotRead(file, error);
  }
  return withoutEnd(content);
}

std::vector<std::string> Capture::namesIn(const std::string& directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    names.push_back(entry->path().filename().string());
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    cannotRead(directory, error.value());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void captureBehaviour(Capture& capture) {
  std::string content;
  readFile(std::string("/sys/class/gpio/") + simulator::gpio::behaviourFile, content);
  std::istringstream lines(content);
  std::string group;
  std::string key;
  std::string value;
  while (std::getline(std::getline(lines, group, '\t'), key, '\t') && std::getline(lines, value)) {
    const std::string module = group.compare(0, 6, "power ") == 0 ? group.substr(6) : "";
    // Links that are not there must not come to be for what is known of them.
    if (module.empty() || simulator::valueOf(*capture.hardware, {group, "initially", ""})) {
      capture.say(group, key, value);
    }
  }
}

namespace {

using simulator::hexText;
using simulator::State;

/// The instrument that is described, when it has just started.
std::unique_ptr<State> described(const Capture& capture) {
  auto state = std::make_unique<State>();
  state->hardware = *capture.hardware;
  state->fast = true;  // its clock stands
  state->moment = -1;
  settle(*state);
  state->hardware.running = true;
  for (std::size_t index = 0; index < capture.hardware->changesUsed; ++index) {
    const simulator::Change& change = capture.hardware->changes[index];
    if (change.at == 0 && change.duration == 0) {
      simulator::apply(state->hardware, {change.group, change.key, change.value});
    }
  }
  return state;
}

void compareDevices(Capture& capture, const State& described) {
  for (const simulator::I2cDevice& device : described.hardware.i2cDevices) {
    const std::string name = simulator::i2c::nameOf(device);
    const std::string directory = simulator::i2c::directoryOf(described.hardware, device);
    for (const Capture::Device& read : capture.devices) {
      if (device.described && read.name == name && read.directory != directory) {
        capture.remark("device " + name + " is " + read.directory + ", described " + directory);
      }
    }
  }
}

/// Says the numbers of the expanders' lines where a simulated kernel would give them others.
void numberLines(Capture& capture) {
  const std::unique_ptr<State> state = described(capture);
  const auto isAsDescribed = [&](const Capture::Chip& chip) {
    return std::any_of(std::begin(state->hardware.i2cDevices), std::end(state->hardware.i2cDevices),
                       [&](const simulator::I2cDevice& device) {
                         return device.described && device.gpioBase == chip.base &&
                                simulator::i2c::nameOf(device) == chip.expander;
                       });
  };
  if (!std::all_of(capture.chips.begin(), capture.chips.end(), isAsDescribed)) {
    for (const Capture::Chip& chip : capture.chips) {
      capture.say("expander " + chip.expander, "first-line", std::to_string(chip.base));
    }
  }
}

/// The number that a captured line has on the instrument that is described.
int describedNumber(const State& described, const Capture::Line& line) {
  for (const simulator::I2cDevice& device : described.hardware.i2cDevices) {
    if (device.described && simulator::i2c::nameOf(device) == line.expander) {
      return device.gpioBase + line.offset;
    }
  }
  return line.number;
}

void comparePowerLinks(Capture& capture, const State& described) {
  for (const Capture::PowerLink& link : capture.powerLinks) {
    const int number = simulator::power::firstLine(described.hardware, link.module) + link.isDone;
    for (const Capture::Line& line : capture.lines) {
      if (line.number == link.number && describedNumber(described, line) != number) {
        capture.remark(link.name + " is line " + std::to_string(link.number) + ", described " +
                       std::to_string(number));
      }
    }
  }
}

void compareLine(Capture& capture, const State& described, const Capture::Line& read) {
  const int number = describedNumber(described, read);
  for (const auto& [attribute, value] : read.attributes) {
    std::string content;
    const int error = simulator::gpio::openLine(described, number, attribute, content);
    // Only what is exported can be compared; without its level a line is described as such.
    if (!value.empty() && error == 0 && withoutEnd(content) != value) {
      capture.remark("line " + std::to_string(read.number) + " " + attribute + " reads " + value +
                     ", described " + withoutEnd(content));
    }
  }
  if (simulator::gpio::lineOf(described.hardware, number) == nullptr) {
    capture.remark("line " + std::to_string(read.number) + " is none described");
  }
}

void compareSpace(Capture& capture, State& described, const Capture::Space& space) {
  const simulator::PciDevice& device = described.hardware.pci[space.place];
  const std::string name = std::string("[pci ") + simulator::pciPlaceNames[space.place] + "]";
  const auto at = [&](std::uint32_t offset) {
    std::uint32_t value = 0;
    simulator::pci::read(described, device.bus, device.device, offset, sizeof value, value);
    return value;
  };
  if (at(0) == ~0U) {
    capture.remark(name + " answers, described as behind a link that is down");
    return;
  }
  for (std::uint32_t offset = 0; offset + 4 <= space.bytes.size(); offset += 4) {
    std::uint32_t read = 0;
    std::memcpy(&read, space.bytes.data() + offset, sizeof read);
    if (at(offset) != read) {
      capture.remark(name + " register " + hexText(offset).substr(2) + " reads " + hexText(read) +
                     ", described " + hexText(at(offset)));
    }
  }
}

}  // namespace

void compareWithDescribed(Capture& capture) {
  numberLines(capture);
  const std::unique_ptr<State> state = described(capture);
  compareDevices(capture, *state);
  comparePowerLinks(capture, *state);
  for (const Capture::Line& line : capture.lines) {
    compareLine(capture, *state, line);
  }
  for (const Capture::Space& space : capture.spaces) {
    compareSpace(capture, *state, space);
  }
}

int readFile(const std::string& name, std::string& content) {
  content.clear();
  const auto fd = static_cast<int>(TEMP_FAILURE_RETRY(::open(name.c_str(), O_RDONLY | O_CLOEXEC)));
  if (fd < 0) {
    return errno;
  }
  int error = 0;
  for (ssize_t size = 1; size > 0;) {
    char buffer[4096];
    size = TEMP_FAILURE_RETRY(::read(fd, buffer, sizeof buffer));
    error = size < 0 ? errno : 0;
    content.append(buffer, static_cast<std::size_t>(size < 0 ? 0 : size));
  }
  ::close(fd);
  return error;
}

std::string withoutEnd(std::string text) {
  if (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text;
}

std::string errorText(int error) {
  const char* const name = strerrorname_np(error);
  return std::string(name == nullptr ? "error" : name) + " (" + std::strerror(error) + ")";
}
