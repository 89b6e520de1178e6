// SPDX-License-Identifier: MIT
#include "simulator/instrument/DescriptionFile.h"

#include <glib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "simulator/parts/Part.h"

namespace simulator {

namespace {

struct Free {
  void operator()(GKeyFile* file) const { g_key_file_unref(file); }
  void operator()(GError* error) const { g_error_free(error); }
  void operator()(char* text) const { g_free(text); }
  void operator()(char** texts) const { g_strfreev(texts); }
};

template <typename Object>
using Owned = std::unique_ptr<Object, Free>;

const Group& groupOf(const std::string& kind, bool hasInstance) {
  for (const Part* part : parts) {
    for (std::size_t index = 0; index < part->groupCount; ++index) {
      const Group& group = part->groups[index];
      if (kind == group.kind && hasInstance == group.hasInstance) {
        return group;
      }
    }
  }
  throw std::runtime_error("unknown group");
}

void readGroup(Hardware& hardware, GKeyFile* file, const std::string& fileName,
               const std::string& groupName) {
  std::string place = fileName + ": [" + groupName + "]";
  try {
    const std::size_t blank = groupName.find(' ');
    const bool hasInstance = blank != std::string::npos;
    const std::string instance = hasInstance ? groupName.substr(blank + 1) : "";
    const std::string kind = groupName.substr(0, blank);
    const Group& group = groupOf(kind, hasInstance);
    if (group.begin != nullptr) {
      group.begin(hardware, instance);
    }
    const Owned<char*> keys(g_key_file_get_keys(file, groupName.c_str(), nullptr, nullptr));
    const std::string groupPlace = place;
    for (char** key = keys.get(); *key != nullptr; ++key) {
      place = groupPlace + " " + *key;
      const Owned<char> value(g_key_file_get_value(file, groupName.c_str(), *key, nullptr));
      group.set(hardware, instance, *key, value.get());
    }
  } catch (const std::runtime_error& reason) {
    throw DescriptionError(place + ": " + reason.what());
  }
}

}  // namespace

Hardware readDescription(const std::string& file) {
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

Hardware parseDescription(const std::string& text, const std::string& name) {
  const Owned<GKeyFile> file(g_key_file_new());
  GError* error = nullptr;
  if (!text.empty() && g_key_file_load_from_data(file.get(), text.data(), text.size(),
                                                 G_KEY_FILE_NONE, &error) == 0) {
    const Owned<GError> owned(error);
    throw DescriptionError(name + ": " + error->message);
  }
  Hardware hardware{};
  const Owned<char*> groupNames(g_key_file_get_groups(file.get(), nullptr));
  for (char** groupName = groupNames.get(); *groupName != nullptr; ++groupName) {
    readGroup(hardware, file.get(), name, *groupName);
  }
  return hardware;
}

}  // namespace simulator
