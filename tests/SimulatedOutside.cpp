// SPDX-License-Identifier: MIT
#include <regex>

#include "simulator/instrument/SimulatedInstrument.h"
#include "tests/Outside.h"

struct Outside::Way {
  simulator::SimulatedInstrument instrument{
      simulator::readDescription(SOURCE_DIR "/kernel/instrument.conf")};
};

Outside::Outside() : way(std::make_unique<Way>()) {}

Outside::~Outside() = default;

void Outside::drive(int line, bool level) {
  way->instrument.set({"gpio " + std::to_string(line) + (level ? "=high" : "=low")});
}

void Outside::setRegister(const std::string& device, std::uint32_t offset, std::uint32_t value) {
  static const struct {
    const char* address;
    const char* name;
  } devices[] = {
      {"00:00.0", "root"},  {"01:00.0", "switch"},     {"02:01.0", "port1"},
      {"02:05.0", "port5"}, {"02:07.0", "port7"},      {"02:09.0", "port9"},
      {"06:00.0", "shim"},  {"07:01.0", "shim-port1"}, {"07:05.0", "shim-port5"},
  };
  for (const auto& known : devices) {
    if (device == known.address) {
      char setting[64];
      std::snprintf(setting, sizeof setting, "pci %s register-%x=0x%x", known.name, offset, value);
      way->instrument.set({setting});
    }
  }
}

std::vector<std::string> Outside::accesses() {
  static const std::regex pattern("pci (read|write)(8|16|32) 0000:(\\S+) (\\S+) (\\S+).*");
  std::vector<std::string> found;
  for (const std::string& line : way->instrument.takeTrace()) {
    std::smatch match;
    if (std::regex_match(line, match, pattern)) {
      const std::string value = match[1] == "write" ? " " + match[5].str() : "";
      found.push_back(match[1].str() + match[2].str() + " " + match[3].str() + " " +
                      match[4].str() + value);
    }
  }
  return found;
}
