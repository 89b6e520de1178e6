// SPDX-License-Identifier: MIT
#include "platform/I2CDev.h"

#include <filesystem>
#include <set>
#include <string_view>
#include <system_error>

namespace {

namespace fs = std::filesystem;

constexpr std::string_view busPrefix = "i2c-";

// The devices on the bus itself, "2-0070" on "i2c-2", by address. The bus directory holds other
// entries that lead to channels too: the bus of a channel links back to its own multiplexer, whose
// channels are the parent bus's.
std::set<std::string> devicesOnBus(const fs::path& busDirectory, const std::string& busNumber) {
  std::set<std::string> devices;
  std::error_code error;
  for (fs::directory_iterator entry(busDirectory, error), end; entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.rfind(busNumber + "-", 0) == 0) {
      devices.insert(name);
    }
  }
  return devices;
}

}  // namespace

std::string I2CDev::FindI2CBusNameOfMuxChannel(std::string busName, int channel) {
  if (busName.rfind(busPrefix, 0) != 0) {
    return "";
  }
  const fs::path busDirectory = fs::path("/sys/bus/i2c/devices") / busName;
  const std::string link = "channel-" + std::to_string(channel);
  for (const std::string& device : devicesOnBus(busDirectory, busName.substr(busPrefix.size()))) {
    std::error_code error;
    const fs::path adapter = fs::read_symlink(busDirectory / device / link, error);
    if (!error) {
      return adapter.filename().string();
    }
  }
  return "";
}
