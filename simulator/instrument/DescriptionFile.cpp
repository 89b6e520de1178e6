// SPDX-License-Identifier: MIT
#include "simulator/instrument/DescriptionFile.h"

#include <glib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "simulator/parts/Changes.h"
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

void readGroup(Hardware& hardware, GKeyFile* file, const std::string& fileName,
               const std::string& groupName) {
  std::string place = fileName + ": [" + groupName + "]";
  try {
    std::string instance;
    const Group& group = groupOf(groupName, instance);
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

/// Groups of changes, which are about all others.
bool isOfChanges(const std::string& groupName) {
  return groupName.compare(0, 3, "at ") == 0 || groupName.compare(0, 6, "after ") == 0;
}

/// Writes what has to be said of one instance so that `known` comes to it.
void writeInstance(std::ostream& text, const Group& group, const std::string& instance,
                   const Entries& entries, Hardware& known) {
  if (group.begin != nullptr) {
    group.begin(known, instance);
  }
  std::map<std::string, std::string> before;
  for (const Entry& entry : group.describe(known)) {
    if (entry.instance == instance && !entry.key.empty()) {
      before[entry.key] = entry.value;
    }
  }
  bool begun = false;
  for (const Entry& entry : entries) {
    const auto same = before.find(entry.key);
    if (entry.instance != instance || (same != before.end() && same->second == entry.value)) {
      continue;
    }
    if (!begun) {
      text << "\n[" << group.kind << (group.hasInstance ? " " : "") << instance << "]\n";
      begun = true;
    }
    if (!entry.key.empty()) {
      text << entry.key << "=" << entry.value << "\n";
      group.set(known, instance, entry.key, entry.value);
    }
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
  for (const bool changes : {false, true}) {
    for (char** groupName = groupNames.get(); *groupName != nullptr; ++groupName) {
      if (isOfChanges(*groupName) == changes) {
        readGroup(hardware, file.get(), name, *groupName);
      }
    }
  }
  return hardware;
}

std::string describe(const Hardware& hardware) {
  std::ostringstream text;
  const auto known = std::make_unique<Hardware>();
  for (const Part* part : parts) {
    for (std::size_t index = 0; index < part->groupCount; ++index) {
      const Group& group = part->groups[index];
      const Entries entries = group.describe(hardware);
      std::string last = "none";
      for (const Entry& entry : entries) {
        if (entry.instance != last) {
          last = entry.instance;
          writeInstance(text, group, last, entries, *known);
        }
      }
    }
  }
  const std::string result = text.str();
  return result.empty() ? result : result.substr(1);
}

}  // namespace simulator
