// SPDX-License-Identifier: MIT
#include "internal/Directory.h"

#include <dirent.h>

#include <memory>

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};

}  // namespace

std::vector<std::string> listDirectory(const std::string& path) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, CloseDirectory> directory(opendir(path.c_str()));
  if (directory != nullptr) {
    names.reserve(32);  // most directories of sysfs hold fewer: no growing while they are read
    while (const dirent* entry = readdir(directory.get())) {
      names.emplace_back(entry->d_name);
    }
  }
  return names;
}

std::string findEntry(const std::string& path, const std::string& name, NameMatch match) {
  for (const std::string& entry : listDirectory(path)) {
    if (match == NameMatch::exact ? entry == name : entry.find(name) != std::string::npos) {
      return path + "/" + entry;
    }
  }
  return "";
}
