#include "simulator/Description.h"

#include <glib.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

#include "simulator/Pci.h"
#include "simulator/Power.h"

namespace simulator {

namespace {

// Lines of the strap bits, bit 5 first.
constexpr int strapLines[] = {135, 171, 170, 169, 168, 167};

std::runtime_error mustBe(const std::string& expected, const std::string& value) {
  return std::runtime_error("must be " + expected + ", not \"" + value + "\"");
}

std::runtime_error unknownKey() { return std::runtime_error("unknown key"); }

void setBoard(Description& description, const std::string& /*instance*/, const std::string& key,
              const std::string& value) {
  if (key != "straps") {
    throw unknownKey();
  }
  if (value.size() != std::size(strapLines) || value.find_first_not_of("01") != std::string::npos) {
    throw mustBe("six characters 0 and 1, bit 5 first", value);
  }
  for (std::size_t bit = 0; bit < value.size(); ++bit) {
    description.lines[strapLines[bit]].level = value[bit] == '1';
  }
}

void setLine(Description& description, const std::string& /*instance*/, const std::string& key,
             const std::string& value) {
  static const std::regex number("[0-9]{1,9}");
  if (!std::regex_match(key, number) || std::stoi(key) >= gpioLineCount) {
    throw std::runtime_error("not a line number from 0 to " + std::to_string(gpioLineCount - 1));
  }
  GpioLine& line = description.lines[std::stoi(key)];
  if (value == "low" || value == "high") {
    line.level = value == "high";
  } else if (value == "missing") {
    line.condition = GpioLine::Condition::missing;
  } else if (value == "no-direction") {
    line.condition = GpioLine::Condition::noDirection;
  } else if (value == "no-value") {
    line.condition = GpioLine::Condition::noValue;
  } else {
    throw mustBe("low, high, missing, no-direction or no-value", value);
  }
}

void checkI2cName(const std::string& name) {
  static const std::regex pattern("[0-9]{1,4}-[0-9a-f]{4}");
  if (!std::regex_match(name, pattern)) {
    throw std::runtime_error("not an I2C device such as 0-0074 (bus, address): \"" + name + "\"");
  }
}

void setI2cDevice(Description& description, const std::string& /*instance*/, const std::string& key,
                  const std::string& value) {
  checkI2cName(key);
  description.i2cDevices[key].name = value;
}

void setFault(Description& description, const std::string& /*instance*/, const std::string& key,
              const std::string& value) {
  const auto* name = std::find(std::begin(faultNames), std::end(faultNames), key);
  if (name == std::end(faultNames)) {
    throw unknownKey();
  }
  if (value != "on" && value != "off") {
    throw mustBe("on or off", value);
  }
  description.faults[name - faultNames] = value == "on";
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

/// Seconds with a fraction, as microseconds.
std::int64_t duration(const std::string& value) {
  static const std::regex seconds("[0-9]{1,6}([.][0-9]{1,6})?");
  if (!std::regex_match(value, seconds)) {
    throw mustBe("a time in seconds such as 2.5", value);
  }
  return std::llround(std::stod(value) * 1e6);
}

/// Which of two words the value is; true for the first.
bool choice(const std::string& value, const char* first, const char* second) {
  if (value != first && value != second) {
    throw mustBe(std::string(first) + " or " + second, value);
  }
  return value == first;
}

void setPci(Description& description, const std::string& /*instance*/, const std::string& key,
            const std::string& value) {
  if (key != "shim") {
    throw unknownKey();
  }
  constexpr PciPlace modulePorts[] = {port1, port9, port7, port5};
  const std::uint32_t module = number(value);
  if (module >= std::size(modulePorts)) {
    throw mustBe("a module number from 0 to 3", value);
  }
  pci::describeShim(description.pci, modulePorts[module]);
}

std::uint32_t registerOffset(const std::string& digits) {
  const std::uint32_t offset = number("0x" + digits);
  if (offset % 4 != 0 || offset >= sizeof PciDevice::config) {
    throw std::runtime_error("not the offset of a 32-bit register, from 0 to ffc");
  }
  return offset;
}

PciDevice& pciDevice(Description& description, const std::string& name) {
  const auto* const place = std::find(std::begin(pciPlaceNames), std::end(pciPlaceNames), name);
  if (place == std::end(pciPlaceNames)) {
    throw std::runtime_error("unknown group");
  }
  return description.pci[place - pciPlaceNames];
}

void beginPci(Description& description, const std::string& /*instance*/) {
  description.pciSystem = true;
  pci::describeFabric(description.pci);
}

void beginPciDevice(Description& description, const std::string& instance) {
  if (!pciDevice(description, instance).present) {
    throw std::runtime_error("no such device; describe [pci] and its shim first");
  }
}

void setPciDevice(Description& description, const std::string& instance, const std::string& key,
                  const std::string& value) {
  PciDevice& device = pciDevice(description, instance);
  static const std::regex perRegister("(register|stuck)-([0-9a-f]{1,3})");
  std::smatch match;
  if (std::regex_match(key, match, perRegister)) {
    const std::uint32_t offset = registerOffset(match[2]);
    if (match[1] == "register") {
      pci::setRegister(device, offset, number(value));
    } else {
      const std::uint32_t mask = number(value);
      std::memcpy(device.stuck + offset, &mask, sizeof mask);
    }
  } else if (key == "present") {
    device.present = choice(value, "yes", "no");
  } else if (key == "class") {
    pci::setClassCode(device, number(value));
  } else if (key == "readable") {
    device.unreadable = !choice(value, "yes", "no");
  } else if (key == "link") {
    device.linkUp = choice(value, "up", "down");
  } else if (key == "link-lost-after") {
    device.linkLostAfter = duration(value);
  } else if (key == "link-status") {
    device.linkStatus = static_cast<std::uint16_t>(number(value));
  } else if (key == "uncorrectable") {
    device.uncorrectable = number(value);
  } else if (key == "correctable") {
    device.correctable = number(value);
  } else if (key == "loopback") {
    device.loopbackRefused = !choice(value, "ok", "refused");
  } else if (key == "prbs") {
    device.prbsOutOfSync = !choice(value, "sync", "no-sync");
  } else if (key == "prbs-errors-after") {
    device.prbsErrorsAfter = duration(value);
  } else if (key == "prbs-errors-per-second") {
    device.prbsErrorsPerSecond = number(value);
  } else {
    throw unknownKey();
  }
}

void beginMux(Description& description, const std::string& instance) {
  checkI2cName(instance);
  description.i2cDevices[instance].name = "mux";
}

void setMux(Description& description, const std::string& instance, const std::string& key,
            const std::string& value) {
  static const std::regex bus("i2c-[0-9]{1,4}");
  if (!std::regex_match(value, bus)) {
    throw mustBe("a bus such as i2c-9", value);
  }
  description.i2cDevices[instance].channels[static_cast<int>(number(key))] = value;
}

void beginExpander(Description& description, const std::string& instance) {
  checkI2cName(instance);
  description.i2cDevices[instance].name = "pca9536";
  description.i2cDevices[instance].gpio = Description::I2cDevice::Gpio::chip;
}

void setExpander(Description& description, const std::string& instance, const std::string& key,
                 const std::string& value) {
  if (key != "gpio") {
    throw unknownKey();
  }
  using Gpio = Description::I2cDevice::Gpio;
  const std::map<std::string, Gpio> states = {
      {"chip", Gpio::chip}, {"empty", Gpio::emptyDirectory}, {"none", Gpio::none}};
  const auto state = states.find(value);
  if (state == states.end()) {
    throw mustBe("chip, empty or none", value);
  }
  description.i2cDevices[instance].gpio = state->second;
}

void beginModule(Description& description, const std::string& instance) {
  checkI2cName(instance);
  description.i2cDevices[instance].name = "module";
}

void setModule(Description& description, const std::string& instance, const std::string& key,
               const std::string& value) {
  Description::I2cDevice& device = description.i2cDevices[instance];
  if (key == "id" || key == "top" || key == "system" || key == "solution" || key == "2k4k") {
    device.properties[key] = value;
  } else if (key == "openable") {
    device.openable = choice(value, "yes", "no");
    const auto isShut = [](const auto& entry) { return !entry.second.openable; };
    if (std::count_if(description.i2cDevices.begin(), description.i2cDevices.end(), isShut) > 1) {
      throw std::runtime_error("another device cannot be opened already");
    }
  } else {
    throw unknownKey();
  }
}

PowerSequence& powerSequence(Description& description, const std::string& instance) {
  const std::uint32_t module = number(instance);
  if (!power::hasLinks(module)) {
    throw std::runtime_error("only modules 1, 2, 4 and 5 have power links");
  }
  return description.power[module];
}

void beginPower(Description& description, const std::string& instance) {
  PowerSequence& power = powerSequence(description, instance);
  power.present = true;
  power.onDelay = power::defaultDelay;
  power.offDelay = power::defaultDelay;
}

void setPower(Description& description, const std::string& instance, const std::string& key,
              const std::string& value) {
  PowerSequence& power = powerSequence(description, instance);
  if (key == "initially") {
    power.enabled = choice(value, "on", "off");
    power.switchedAt = -power::longAgo;
  } else if (key == "on-delay") {
    power.onDelay = value == "never" ? -1 : duration(value);
  } else if (key == "off-delay") {
    power.offDelay = value == "never" ? -1 : duration(value);
  } else if (key == "flicker") {
    power.flickers = choice(value, "yes", "no");
  } else if (key == "power-enable") {
    power.enableMissing = choice(value, "missing", "present");
  } else if (key == "sequence-done") {
    power.doneMissing = choice(value, "missing", "present");
  } else {
    throw unknownKey();
  }
}

/// A kind of group, how it begins, and how one of its keys is taken. Both throw the reason if they
/// cannot. A group's name is its kind or, where it describes one of several, the kind, a blank and
/// the instance.
struct Group {
  const char* kind;
  bool hasInstance;
  void (*begin)(Description& description, const std::string& instance);
  void (*set)(Description& description, const std::string& instance, const std::string& key,
              const std::string& value);
};

void beginNothing(Description& /*description*/, const std::string& /*instance*/) {}

constexpr Group groups[] = {
    {"board", false, beginNothing, setBoard},       {"gpio", false, beginNothing, setLine},
    {"i2c", false, beginNothing, setI2cDevice},     {"mux", true, beginMux, setMux},
    {"expander", true, beginExpander, setExpander}, {"module", true, beginModule, setModule},
    {"power", true, beginPower, setPower},          {"pci", false, beginPci, setPci},
    {"pci", true, beginPciDevice, setPciDevice},    {"faults", false, beginNothing, setFault},
};

struct Free {
  void operator()(GKeyFile* file) const { g_key_file_unref(file); }
  void operator()(GError* error) const { g_error_free(error); }
  void operator()(char* text) const { g_free(text); }
  void operator()(char** texts) const { g_strfreev(texts); }
};

template <typename Object>
using Owned = std::unique_ptr<Object, Free>;

const Group& groupOf(const std::string& kind, bool hasInstance) {
  for (const Group& group : groups) {
    if (kind == group.kind && hasInstance == group.hasInstance) {
      return group;
    }
  }
  throw std::runtime_error("unknown group");
}

void readGroup(Description& description, GKeyFile* file, const std::string& fileName,
               const std::string& groupName) {
  std::string place = fileName + ": [" + groupName + "]";
  try {
    const std::size_t blank = groupName.find(' ');
    const bool hasInstance = blank != std::string::npos;
    const std::string instance = hasInstance ? groupName.substr(blank + 1) : "";
    const Group& group = groupOf(groupName.substr(0, blank), hasInstance);
    group.begin(description, instance);
    const Owned<char*> keys(g_key_file_get_keys(file, groupName.c_str(), nullptr, nullptr));
    const std::string groupPlace = place;
    for (char** key = keys.get(); *key != nullptr; ++key) {
      place = groupPlace + " " + *key;
      const Owned<char> value(g_key_file_get_value(file, groupName.c_str(), *key, nullptr));
      group.set(description, instance, *key, value.get());
    }
  } catch (const std::runtime_error& reason) {
    throw DescriptionError(place + ": " + reason.what());
  }
}

}  // namespace

Description readDescription(const std::string& file) {
  if (std::filesystem::is_directory(file)) {
    throw DescriptionError(file + ": is a directory");
  }
  std::ifstream stream(file, std::ios::binary);
  std::ostringstream text;
  text << stream.rdbuf();
  if (!stream.is_open() || stream.bad() || text.bad()) {
    throw DescriptionError(file + ": cannot be read");
  }
  return parseDescription(text.str(), file);
}

Description parseDescription(const std::string& text, const std::string& name) {
  const Owned<GKeyFile> file(g_key_file_new());
  GError* error = nullptr;
  if (!text.empty() && g_key_file_load_from_data(file.get(), text.data(), text.size(),
                                                 G_KEY_FILE_NONE, &error) == 0) {
    const Owned<GError> owned(error);
    throw DescriptionError(name + ": " + error->message);
  }
  Description description;
  const Owned<char*> groupNames(g_key_file_get_groups(file.get(), nullptr));
  for (char** groupName = groupNames.get(); *groupName != nullptr; ++groupName) {
    readGroup(description, file.get(), name, *groupName);
  }
  return description;
}

}  // namespace simulator
