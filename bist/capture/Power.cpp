// SPDX-License-Identifier: MIT
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "bist/capture/Capture.h"
#include "simulator/parts/PowerLinks.h"

namespace {

namespace fs = std::filesystem;

std::string fileOf(const std::string& link) { return "/sys/platform/" + link; }

/// Whether a link is there; notes which line it leads to.
bool noteLink(Capture& capture, std::uint32_t module, const std::string& link, bool isDone) {
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

/// Whether a power sequence is where the power-enable line has it, now or after the longest time
/// that the library waits for one.
bool follows(Capture& capture, const std::string& done, bool on) {
  using namespace std::chrono_literals;
  constexpr std::chrono::milliseconds longest = 5s;
  constexpr std::chrono::milliseconds interval = 100ms;
  for (std::chrono::milliseconds waited = 0s; isHigh(capture, done) == on; waited += interval) {
    if (waited == longest) {
      return false;
    }
    std::this_thread::sleep_for(interval);
  }
  return true;
}

void captureModule(Capture& capture, std::uint32_t module) {
  const std::string group = "power " + std::to_string(module);
  const std::string enable = simulator::power::enableLink(module);
  const std::string done = simulator::power::doneLink(module);
  const bool hasEnable = noteLink(capture, module, enable, false);
  const bool hasDone = noteLink(capture, module, done, true);
  if (!hasEnable && !hasDone) {
    return;
  }
  const bool on = hasEnable && isHigh(capture, enable);
  capture.say(group, "initially", on ? "on" : "off");
  capture.say(group, "power-enable", hasEnable ? "present" : "missing");
  capture.say(group, "sequence-done", hasDone ? "present" : "missing");
  if (hasEnable && hasDone && !follows(capture, done, on)) {
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
