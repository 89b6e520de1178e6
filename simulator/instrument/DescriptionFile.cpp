// SPDX-License-Identifier: MIT
#include "simulator/instrument/DescriptionFile.h"

#include <fcntl.h>
#include <glib.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <memory>
#include <regex>
#include <sstream>

#include "simulator/parts/Changes.h"
#include "simulator/parts/Part.h"
#include "simulator/parts/Values.h"

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
               const std::string& groupName, const std::string& hint) {
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
    throw DescriptionError(place + ": " + reason.what() + hint);
  }
}

/// No description that talvero-sim or talvero-bist writes is as large.
constexpr std::size_t mostBytes = 1 << 20;

/// Why a line can be no part of a description, and has no place on a terminal; empty if it can.
std::string reasonAgainst(std::string line) {
  std::replace(line.begin(), line.end(), '\t', ' ');
  if (printable(line) != line) {
    return "has a control character";
  }
  return line.size() > longestLine && line[0] != '#' ? tooLong(longestLine).what() : "";
}

/// Descriptions come from others: whatever is in one, reading it takes little memory and stack, and
/// an error that quotes it is one line.
void requireLines(const std::string& text, const std::string& name) {
  if (text.size() > mostBytes) {
    throw DescriptionError(name + ": longer than " + std::to_string(mostBytes) + " bytes");
  }
  std::istringstream lines(text);
  std::string line;
  for (int number = 1; std::getline(lines, line); ++number) {
    if (!line.empty() && line.back() == '\r') {  // as other systems end lines
      line.pop_back();
    }
    const std::string reason = reasonAgainst(line);
    if (!reason.empty()) {
      throw DescriptionError(name + ": line " + std::to_string(number) + ": " + reason);
    }
  }
}

/// The version that a description was written by; this one where it does not say.
std::string versionOf(GKeyFile* file) {
  const Owned<char> version(g_key_file_get_value(file, versionGroup, versionKey, nullptr));
  return version == nullptr ? TALVERO_VERSION : version.get();
}

/// The numbers of a version such as 0.2.0, by which versions compare.
std::array<unsigned long, 3> numbersOf(const std::string& version) {
  static const auto& pattern = *new std::regex("([0-9]{1,6})[.]([0-9]{1,6})[.]([0-9]{1,6})");
  std::smatch match;
  if (!std::regex_match(version, match, pattern)) {
    throw mustBe("a version such as " TALVERO_VERSION, version);
  }
  return {std::stoul(match[1]), std::stoul(match[2]), std::stoul(match[3])};
}

/// What an error in a description of a newer version has to add: its keys may be unknown here.
std::string hintAtVersion(const std::string& version) {
  return numbersOf(version) <= numbersOf(TALVERO_VERSION)
             ? ""
             : "; the description is of version " + version + ", newer than this one, " +
                   TALVERO_VERSION;
}

/// Reads the group that says the version.
std::string readVersion(GKeyFile* file, const std::string& name) {
  const std::string place = name + ": [" + versionGroup + "] ";
  std::string key = versionKey;
  try {
    std::string hint = hintAtVersion(versionOf(file));
    const Owned<char*> keys(g_key_file_get_keys(file, versionGroup, nullptr, nullptr));
    for (char** known = keys.get(); known != nullptr && *known != nullptr; ++known) {
      key = *known;
      if (key != versionKey) {
        throw std::runtime_error("unknown key" + hint);
      }
    }
    return hint;
  } catch (const std::runtime_error& reason) {
    throw DescriptionError(place + key + ": " + reason.what());
  }
}

/// Groups of changes, which are about all others.
bool isOfChanges(const std::string& groupName) {
  return groupName.compare(0, 3, "at ") == 0 || groupName.compare(0, 6, "after ") == 0;
}

/// Opens a file, a named pipe once somebody writes to it; negative if it cannot. umockdev would let
/// no signal end an open() that waits.
int openWhenReady(const std::string& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  pollfd input{fd, POLLIN, 0};
  while (fd >= 0 && ::poll(&input, 1, -1) < 0 && errno == EINTR) {
  }
  ::fcntl(fd, F_SETFL, 0);
  return fd;
}

/// No two devices can be at one address.
void requireOwnAddresses(const Hardware& hardware, const std::string& name) {
  for (std::size_t one = 0; one < pciPlaceCount; ++one) {
    for (std::size_t other = 0; other < one; ++other) {
      const PciDevice& device = hardware.pci[one];
      const PciDevice& taken = hardware.pci[other];
      if (device.described && taken.described && device.bus == taken.bus &&
          device.device == taken.device) {
        throw DescriptionError(name + ": [pci " + pciPlaceNames[one] + "] bus: [pci " +
                               pciPlaceNames[other] + "] is there");
      }
    }
  }
}

}  // namespace

Hardware readDescription(const std::string& file) {
  if (std::filesystem::is_directory(file)) {
    throw DescriptionError(file + ": is a directory");
  }
  const int fd = openWhenReady(file);
  std::string text(mostBytes + 1, '\0');
  std::size_t used = 0;
  ssize_t size = 0;
  while ((size = ::read(fd, text.data() + used, text.size() - used)) > 0) {
    used += static_cast<std::size_t>(size);
  }
  ::close(fd);
  if (size < 0) {
    throw DescriptionError(file + ": cannot be read");
  }
  text.resize(used);
  return parseDescription(text, file);
}

Hardware parseDescription(const std::string& text, const std::string& name) {
  requireLines(text, name);
  const Owned<GKeyFile> file(g_key_file_new());
  GError* error = nullptr;
  if (!text.empty() && g_key_file_load_from_data(file.get(), text.data(), text.size(),
                                                 G_KEY_FILE_NONE, &error) == 0) {
    const Owned<GError> owned(error);
    throw DescriptionError(name + ": " + error->message);
  }
  const std::string hint = readVersion(file.get(), name);
  Hardware hardware{};
  const Owned<char*> groupNames(g_key_file_get_groups(file.get(), nullptr));
  for (const bool changes : {false, true}) {
    for (char** groupName = groupNames.get(); *groupName != nullptr; ++groupName) {
      if (isOfChanges(*groupName) == changes && std::string(*groupName) != versionGroup) {
        readGroup(hardware, file.get(), name, *groupName, hint);
      }
    }
  }
  requireOwnAddresses(hardware, name);
  return hardware;
}

}  // namespace simulator
