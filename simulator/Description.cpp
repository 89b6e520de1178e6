#include "simulator/Description.h"

#include <glib.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>

namespace simulator {

namespace {

// Lines of the strap bits, bit 5 first.
constexpr int strapLines[] = {135, 171, 170, 169, 168, 167};

std::runtime_error mustBe(const std::string& expected, const std::string& value) {
  return std::runtime_error("must be " + expected + ", not \"" + value + "\"");
}

std::runtime_error unknownKey() { return std::runtime_error("unknown key"); }

void setBoard(Description& description, const std::string& key, const std::string& value) {
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

void setLine(Description& description, const std::string& key, const std::string& value) {
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

void setI2cDevice(Description& description, const std::string& key, const std::string& value) {
  static const std::regex name("[0-9]{1,4}-[0-9a-f]{4}");
  if (!std::regex_match(key, name)) {
    throw std::runtime_error("not an I2C device such as 0-0074 (bus, address)");
  }
  description.i2cDevices[key] = value;
}

void setFault(Description& description, const std::string& key, const std::string& value) {
  const auto* name = std::find(std::begin(faultNames), std::end(faultNames), key);
  if (name == std::end(faultNames)) {
    throw unknownKey();
  }
  if (value != "on" && value != "off") {
    throw mustBe("on or off", value);
  }
  description.faults[name - faultNames] = value == "on";
}

/// A group of a description and how one of its keys is taken; throws the reason if it cannot be.
struct Group {
  const char* name;
  void (*set)(Description& description, const std::string& key, const std::string& value);
};

constexpr Group groups[] = {
    {"board", setBoard},
    {"gpio", setLine},
    {"i2c", setI2cDevice},
    {"faults", setFault},
};

struct Free {
  void operator()(GKeyFile* file) const { g_key_file_unref(file); }
  void operator()(GError* error) const { g_error_free(error); }
  void operator()(char* text) const { g_free(text); }
  void operator()(char** texts) const { g_strfreev(texts); }
};

template <typename Object>
using Owned = std::unique_ptr<Object, Free>;

void readGroup(Description& description, GKeyFile* file, const std::string& fileName,
               const char* groupName) {
  const auto* group = std::find_if(std::begin(groups), std::end(groups), [&](const Group& known) {
    return known.name == std::string(groupName);
  });
  const std::string place = fileName + ": [" + groupName + "]";
  if (group == std::end(groups)) {
    throw DescriptionError(place + ": unknown group");
  }
  const Owned<char*> keys(g_key_file_get_keys(file, groupName, nullptr, nullptr));
  for (char** key = keys.get(); *key != nullptr; ++key) {
    const Owned<char> value(g_key_file_get_value(file, groupName, *key, nullptr));
    try {
      group->set(description, *key, value.get());
    } catch (const std::runtime_error& reason) {
      throw DescriptionError(place + " " + *key + ": " + reason.what());
    }
  }
}

}  // namespace

Description readDescription(const std::string& file) {
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
