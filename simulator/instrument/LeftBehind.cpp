// SPDX-License-Identifier: MIT
#include "simulator/instrument/LeftBehind.h"

#include "simulator/parts/GpioLines.h"
#include "simulator/parts/PciRegisters.h"
#include "simulator/parts/PowerLinks.h"

namespace simulator {

namespace {

using Words = std::vector<std::string>;

const char* onOrOff(bool on) { return on ? " on" : " off"; }

void addPorts(const Hardware& before, const Hardware& after, Words& words) {
  for (unsigned int index = 0; index < pciPlaceCount; ++index) {
    const auto port = static_cast<PciPlace>(index);
    if (!after.pci[port].described || !pci::isDownstreamPort(port)) {
      continue;
    }
    if (pci::prbsIsOn(after, port) && !pci::prbsIsOn(before, port)) {
      words.push_back(std::string("PRBS on at ") + pciPlaceNames[port]);
    }
    if (pci::isLoopbackMaster(after, port) && !pci::isLoopbackMaster(before, port)) {
      words.push_back(std::string("loopback on at ") + pciPlaceNames[port]);
    }
  }
}

void addModules(const Hardware& before, const Hardware& after, Words& words) {
  for (unsigned int module = 0; module < moduleCount; ++module) {
    const std::string number = std::to_string(module);
    const bool powered = after.power[module].enabled;
    const bool clocked = power::hasClock(after, module);
    if (powered != before.power[module].enabled) {
      words.push_back("module " + number + onOrOff(powered));
    }
    if (clocked != power::hasClock(before, module)) {
      words.push_back("clock source " + number + onOrOff(clocked));
    }
  }
}

void addLines(const Hardware& before, const Hardware& after, Words& words) {
  for (const gpio::Chip& chip : gpio::chipsOf(after)) {
    for (int number = chip.base; number < chip.base + chip.count; ++number) {
      const GpioLine* const line = gpio::lineOf(before, number);
      if (gpio::lineOf(after, number)->output && (line == nullptr || !line->output)) {
        words.push_back("line " + std::to_string(number) + " an output");
      }
    }
  }
}

}  // namespace

std::vector<std::string> leftBehind(const Hardware& before, const Hardware& after) {
  Words words;
  addPorts(before, after, words);
  addModules(before, after, words);
  addLines(before, after, words);
  return words;
}

std::vector<std::string> neverMet(const Hardware& after) {
  Words words;
  for (std::size_t index = 0; index < after.failuresUsed; ++index) {
    const Failure& failure = after.failures[index];
    if (failure.seen <= failure.after && failure.times != 0) {
      words.push_back(std::string("[fail ") + failure.access + "]");
    }
  }
  for (std::size_t index = 0; index < after.changesUsed; ++index) {
    const Change& change = after.changes[index];
    if (change.phase == Change::Phase::waiting) {
      words.push_back(std::string(change.group) + " " + change.key + "=" + change.value);
    }
  }
  return words;
}

}  // namespace simulator
