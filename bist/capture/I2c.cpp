// SPDX-License-Identifier: MIT
#include <libudev.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iterator>

#include "bist/capture/Capture.h"
#include "simulator/parts/Values.h"

namespace {

namespace fs = std::filesystem;

constexpr char devices[] = "/sys/devices/";
constexpr char expanderName[] = "pca9536";

struct Unref {
  void operator()(udev* context) const { udev_unref(context); }
  void operator()(udev_enumerate* enumeration) const { udev_enumerate_unref(enumeration); }
  void operator()(udev_device* device) const { udev_device_unref(device); }
};

template <typename Object>
using Owned = std::unique_ptr<Object, Unref>;

/// A bus or device of the subsystem.
struct Found {
  std::string directory;
  std::string name;  ///< of the directory
  bool openable;
};

bool isBus(const Found& found) { return found.name.compare(0, 4, "i2c-") == 0; }

/// Buses and devices, as libudev lists them.
std::vector<Found> listAll(Capture& capture) {
  std::vector<Found> all;
  const Owned<udev> context(udev_new());
  const Owned<udev_enumerate> list(context == nullptr ? nullptr
                                                      : udev_enumerate_new(context.get()));
  if (list == nullptr || udev_enumerate_add_match_subsystem(list.get(), "i2c") < 0 ||
      udev_enumerate_scan_devices(list.get()) < 0) {
    capture.notRead.emplace_back("I2C devices: libudev does not list them, or not all");
  }
  if (list == nullptr) {
    return all;
  }
  for (udev_list_entry* entry = udev_enumerate_get_list_entry(list.get()); entry != nullptr;
       entry = udev_list_entry_get_next(entry)) {
    const char* const name = udev_list_entry_get_name(entry);
    if (name == nullptr) {
      continue;
    }
    const std::string path = name;
    const Owned<udev_device> device(udev_device_new_from_syspath(context.get(), path.c_str()));
    all.push_back({path, path.substr(path.rfind('/') + 1), device != nullptr});
  }
  return all;
}

/// Says the channels of a multiplexer, which are links to the buses behind them.
void captureChannels(Capture& capture, const Found& found) {
  for (const std::string& name : capture.namesIn(found.directory)) {
    if (name.compare(0, 8, "channel-") == 0) {
      std::error_code error;
      const fs::path bus = fs::read_symlink(found.directory + "/" + name, error).filename();
      if (error) {
        capture.cannotRead(found.name + " " + name, error.value());
      } else {
        capture.say("mux " + found.name, name.substr(8), bus.string());
      }
    }
  }
}

/// A property as a description has it: a text, or integers.
std::string propertyText(const std::string& content) {
  const bool isText = !content.empty() && content.find('\0') == content.size() - 1;
  if (isText || content.size() % 4 != 0) {
    return isText ? content.substr(0, content.size() - 1) : content;
  }
  std::string cells;
  for (std::size_t at = 0; at < content.size(); at += 4) {
    std::uint32_t cell = 0;
    for (std::size_t byte = at; byte < at + 4; ++byte) {
      cell = cell << 8 | static_cast<unsigned char>(content[byte]);
    }
    cells += (cells.empty() ? "" : " ") + simulator::hexText(cell);
  }
  return "<" + cells + ">";
}

bool isDescribed(const std::string& property) {
  return std::find(std::begin(simulator::nodePropertyNames), std::end(simulator::nodePropertyNames),
                   property) != std::end(simulator::nodePropertyNames);
}

/// The node of a module: all of its properties, of which a description knows some.
void captureModule(Capture& capture, const Found& found,
                   const std::vector<std::string>& properties) {
  const std::string group = "module " + found.name;
  std::string others;
  for (const std::string& property : properties) {
    std::string content;
    const int error = readFile(found.directory + "/of_node/" + property, content);
    if (error == EISDIR) {  // a node below it, which is another device's
      continue;
    }
    if (error != 0) {
      capture.cannotRead(found.name + " of_node/" + property, error);
    } else if (isDescribed(property)) {
      capture.say(group, property, propertyText(content));
    } else {
      others += (others.empty() ? "" : ", ") + property + "=" + propertyText(content);
    }
  }
  if (!others.empty()) {
    capture.remark("[" + group + "] has the properties " + others);
  }
  if (!found.openable) {
    capture.say(group, "openable", "no");
  }
}

bool isModule(const std::vector<std::string>& properties) {
  return std::any_of(properties.begin(), properties.end(), isDescribed);
}

/// The chip of an expander, if it has one: what its files say.
void captureChip(Capture& capture, const Found& found, const std::string& chip) {
  const std::string group = "expander " + found.name;
  const std::string directory = found.directory + "/gpio/" + chip;
  const std::string digits = chip.substr(chip.find_first_of("0123456789"));
  const std::string base = capture.attribute(directory + "/base");
  const int count = std::atoi(capture.attribute(directory + "/ngpio").c_str());
  if (base != digits) {
    capture.say(group, "base", base.empty() ? "missing" : base);
  }
  if (count != simulator::expanderLineCount) {
    capture.remark(found.name + " has " + std::to_string(count) + " lines");
  }
  capture.chips.push_back(
      {found.name, std::atoi(digits.c_str()), std::clamp(count, 0, simulator::expanderLineCount)});
}

/// The GPIO chip in a device's directory "gpio"; empty for none.
std::string chipOf(Capture& capture, const std::string& directory) {
  for (const std::string& name : capture.namesIn(directory + "/gpio")) {
    if (name.compare(0, 8, "gpiochip") == 0 && name.size() > 8 &&
        name.find_first_not_of("0123456789", 8) == std::string::npos) {
      return name;
    }
  }
  return "";
}

void captureDevice(Capture& capture, const Found& found) {
  const std::vector<std::string> properties = capture.namesIn(found.directory + "/of_node");
  const std::string chip = chipOf(capture, found.directory);
  std::string name;
  const int error = readFile(found.directory + "/name", name);
  name = withoutEnd(name);
  if (error != 0) {
    capture.cannotRead(found.name + " name", error);
  }
  captureChannels(capture, found);
  if (isModule(properties)) {
    captureModule(capture, found, properties);
  } else if (!found.openable) {
    capture.notRead.push_back(found.name + ": libudev cannot open it");
  }
  std::error_code ignored;
  const bool hasDirectory = fs::exists(found.directory + "/gpio", ignored);
  if (name != expanderName && hasDirectory) {  // whose lines may be anything's
    capture.remark(found.name + " (" + name + ") has GPIO lines");
  } else if (name == expanderName) {
    capture.say("expander " + found.name, "gpio",
                !chip.empty()  ? "chip"
                : hasDirectory ? "empty"
                               : "none");
    if (!chip.empty()) {
      captureChip(capture, found, chip);
    }
  }
  capture.say("i2c", found.name, name);
  capture.devices.push_back({found.name, found.directory});
}

/// Buses that no multiplexer leads to: where they are and, without a device, that they are.
void captureBus(Capture& capture, const Found& found) {
  std::error_code ignored;
  if (fs::is_symlink(found.directory + "/mux_device", ignored)) {
    return;
  }
  const std::string parent = found.directory.substr(0, found.directory.rfind('/'));
  std::string below = parent + "/";
  below =
      below.compare(0, sizeof devices - 1, devices) == 0 ? below.substr(sizeof devices - 1) : below;
  if (!below.empty()) {
    below.pop_back();
  }
  const bool hasDevices = std::any_of(
      capture.devices.begin(), capture.devices.end(), [&](const Capture::Device& device) {
        return device.directory.compare(0, found.directory.size() + 1, found.directory + "/") == 0;
      });
  if (!below.empty() || !hasDevices) {
    capture.say("bus " + found.name, "parent", below);
  }
}

}  // namespace

void captureI2c(Capture& capture) {
  const std::vector<Found> all = listAll(capture);
  for (const Found& found : all) {
    if (!isBus(found)) {
      captureDevice(capture, found);
      capture.foundSomething = true;
    }
  }
  for (const Found& found : all) {
    if (isBus(found)) {
      captureBus(capture, found);
    }
  }
}
