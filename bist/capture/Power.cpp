// SPDX-License-Identifier: MIT
#include <cstdlib>
#include <filesystem>

#include "bist/capture/Capture.h"
#include "simulator/parts/PowerLinks.h"

namespace {

namespace fs = std::filesystem;

std::string fileOf(const std::string& link) { return "/sys/platform/" + link; }

/// Whether a link is there; notes which line it leads to.
bool find(Capture& capture, std::uint32_t module, const std::string& link, bool isDone) {
  std::error_code ignored;
  if (!fs::is_symlink(fileOf(link), ignored)) {
    return false;
  }
  const std::string line = fs::canonical(fileOf(link), ignored).filename().string();
  if (line.compare(0, 4, "gpio") == 0) {
    capture.powerLinks.push_back({module, link, std::atoi(line.c_str() + 4), isDone});
  }
  return true;
}

/// Whether the line behind a link is high; remarks that it cannot be read.
bool isHigh(Capture& capture, const std::string& link) {
  std::string value;
  const int error = readFile(fileOf(link) + "/value", value);
  if (error != 0) {
    capture.cannotRead(link, error);
    return false;
  }
  capture.foundSomething = true;
  return (withoutEnd(value) == "1") != (capture.attribute(fileOf(link) + "/active_low") == "1");
}

void captureModule(Capture& capture, std::uint32_t module) {
  const std::string group = "power " + std::to_string(module);
  const std::string enable = simulator::power::enableLink(module);
  const std::string done = simulator::power::doneLink(module);
  const bool hasEnable = find(capture, module, enable, false);
  const bool hasDone = find(capture, module, done, true);
  if (!hasEnable && !hasDone) {
    return;
  }
  const bool on = hasEnable && isHigh(capture, enable);
  capture.say(group, "initially", on ? "on" : "off");
  capture.say(group, "power-enable", hasEnable ? "present" : "missing");
  capture.say(group, "sequence-done", hasDone ? "present" : "missing");
  // A sequence that has not followed the power-enable line by now never does.
  if (hasEnable && hasDone && isHigh(capture, done) == on) {
    capture.say(group, on ? "on-delay" : "off-delay", "never");
  }
}

}  // namespace

void capturePower(Capture& capture) {
  for (std::uint32_t module = 0; module < simulator::moduleCount; ++module) {
    if (simulator::power::hasLinks(module)) {
      captureModule(capture, module);
    }
  }
}
