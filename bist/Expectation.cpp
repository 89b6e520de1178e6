// SPDX-License-Identifier: MIT
#include "bist/Expectation.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include "bist/Machine.h"
#include "bist/Ports.h"
#include "bist/Slots.h"
#include "board/BoardId.h"

namespace {

constexpr int format = 1;

/// The speed and width of a port's link, or that it is down.
std::string linkText(PCIeDiagnostics& diagnostics, PCIeDownstreamPorts port) {
  constexpr unsigned int linkActive = 0x2000;
  constexpr const char* speeds[] = {"unknown speed", "2.5 GT/s", "5 GT/s", "8 GT/s", "16 GT/s"};
  const unsigned int status = linkStatus(diagnostics, port).word;
  if ((status & linkActive) == 0 || !diagnostics.isLinkUp(port)) {
    return "down";
  }
  const std::size_t speed = status & 0xF;
  return std::string(speeds[speed < std::size(speeds) ? speed : 0]) + " x" +
         std::to_string(status >> 4 & 0x3F);
}

/// What a value of the file has to be.
struct Rule {
  const char* key;
  bool byPart;  ///< an object of such values
  bool (*holds)(const Json& value);
  const char* kind;
};

constexpr Rule rules[] = {
    {"format", false, [](const Json& value) { return value == format; }, "1"},
    {"board", false, [](const Json& value) { return value.is_number_unsigned(); }, "a number"},
    {"modules", true, [](const Json& value) { return value.is_boolean(); }, "true or false"},
    {"controllers", true, [](const Json& value) { return value.is_boolean(); }, "true or false"},
    {"links", true, [](const Json& value) { return value.is_string(); }, "a text"},
    {"limits", true, [](const Json& value) { return value.is_object(); }, "an object"},
};

constexpr struct {
  const char* key;
  unsigned int Limits::*field;
} limitKeys[] = {{"prbsErrors", &Limits::prbsErrors},
                 {"ignoredCorrectable", &Limits::ignoredCorrectable},
                 {"ignoredUncorrectable", &Limits::ignoredUncorrectable}};

bool isPart(const std::string& key, const std::string& part) {
  const auto isPort = [&](PCIeDownstreamPorts port) { return portName(port) == part; };
  if (key == "links" || key == "limits") {
    return std::any_of(std::begin(mainPorts), std::end(mainPorts), isPort) ||
           (key == "limits" && part == "all");
  }
  return part.size() == 1 && part[0] >= '0' && part[0] < '0' + slotCount;
}

void require(bool good, const std::string& place, const std::string& kind) {
  if (!good) {
    throw std::runtime_error("\"" + place + "\" must be " + kind);
  }
}

void checkLimits(const std::string& place, const Json& limits) {
  for (const auto& item : limits.items()) {
    const std::string& key = item.key();
    const bool known = std::any_of(std::begin(limitKeys), std::end(limitKeys),
                                   [&](const auto& row) { return key == row.key; });
    require(known, place + "." + key,
            "a limit: prbsErrors, ignoredCorrectable or ignoredUncorrectable");
    require(item.value().is_number_unsigned() && item.value() <= 0xFFFFFFFF, place + "." + key,
            "a number from 0 to 4294967295");
  }
}

void check(const std::string& key, const Json& value) {
  const auto* const rule = std::find_if(std::begin(rules), std::end(rules),
                                        [&](const Rule& known) { return key == known.key; });
  require(rule != std::end(rules), key, "board, modules, controllers, links or limits");
  if (!rule->byPart) {
    require(rule->holds(value), key, rule->kind);
    return;
  }
  require(value.is_object(), key, "an object");
  for (const auto& item : value.items()) {
    const std::string place = key + "." + item.key();
    require(isPart(key, item.key()), place,
            "of a slot, 0 to 5, or of a port such as DownstreamPort1");
    require(rule->holds(item.value()), place, rule->kind);
    if (key == "limits") {
      checkLimits(place, item.value());
    }
  }
}

Line compared(const std::string& label, const std::string& test, const Json& expected,
              const Json& found) {
  const auto text = [](const Json& value) {
    return value.is_null()       ? "no such part"
           : value.is_string()   ? value.get<std::string>()
           : !value.is_boolean() ? value.dump()
           : value.get<bool>()   ? "there"
                                 : "none";
  };
  Line line{label, text(found), passIf(found == expected)};
  if (line.verdict == Verdict::fail) {
    line.text += ", expected " + text(expected);
  }
  line.test = "expected." + test;
  line.figures = {{"found", found}};
  line.limit = {{"expected", expected}};
  return line;
}

}  // namespace

Json whatIsThere() {
  if (!isSpb()) {
    return {{"format", format}, {"board", BoardId().id}};
  }
  Json modules = Json::object();
  Json controllers = Json::object();
  Json links = Json::object();
  BackplaneInterface backplane;
  for (int slot = 0; slot < slotCount; ++slot) {
    modules[std::to_string(slot)] = backplane.isModulePresent(slot);
    controllers[std::to_string(slot)] = hasExpander(slot);
  }
  PCIeDiagnostics diagnostics;
  for (const PCIeDownstreamPorts port : mainPorts) {
    links[portName(port)] = linkText(diagnostics, port);
  }
  return {{"format", format},
          {"board", BoardId().id},
          {"modules", modules},
          {"controllers", controllers},
          {"links", links}};
}

Expectation::Expectation(const std::string& file) {
  std::ifstream stream(file);
  if (!stream) {
    throw std::runtime_error(file + ": cannot be read");
  }
  try {
    expected = Json::parse(stream);
  } catch (const Json::exception& error) {  // also of numbers that are too large
    throw std::runtime_error(file + ": is no JSON: " + error.what());
  }
  if (!expected.is_object()) {
    throw std::runtime_error(file + ": is no JSON object");
  }
  try {
    for (const auto& item : expected.items()) {
      check(item.key(), item.value());
    }
  } catch (const std::runtime_error& reason) {
    throw std::runtime_error(file + ": " + reason.what());
  }
}

void Expectation::leaveOut(const std::string& part) {
  for (const char* const key : {"modules", "controllers", "links"}) {
    if (expected.contains(key)) {
      expected[key].erase(part);
    }
  }
}

Limits Expectation::limitsOf(PCIeDownstreamPorts port) const {
  Limits limits;
  for (const std::string& part : {std::string("all"), portName(port)}) {
    const Json given = expected.value("limits", Json::object()).value(part, Json::object());
    for (const auto& [key, field] : limitKeys) {
      limits.*field = given.value(key, limits.*field);
    }
  }
  return limits;
}

bool Expectation::expectsNoLink(PCIeDownstreamPorts port) const {
  return expected.value("links", Json::object()).value(portName(port), Json()) == "down";
}

bool Expectation::comparesSomething() const {
  constexpr const char* others[] = {"format", "limits"};
  const auto isOther = [&](const auto& item) {
    return std::find(std::begin(others), std::end(others), item.key()) != std::end(others);
  };
  const auto items = expected.items();
  return !std::all_of(items.begin(), items.end(), isOther);
}

std::vector<Line> Expectation::compare(const Json& found) const {
  std::vector<Line> lines;
  if (expected.contains("board")) {
    lines.push_back(compared("board", "board", expected["board"], found["board"]));
  }
  constexpr struct {
    const char* key;
    const char* what;
    bool ofSlot;
  } parts[] = {
      {"modules", "module", true}, {"controllers", "controller", true}, {"links", "link", false}};
  for (const auto& [key, what, ofSlot] : parts) {
    const Json all = expected.value(key, Json::object());
    for (const auto& item : all.items()) {
      const std::string& part = item.key();
      lines.push_back(compared((ofSlot ? "slot " : "") + part + " " + what,
                               (ofSlot ? "slot" : "") + part + "." + what, item.value(),
                               found.value(key, Json::object()).value(part, Json())));
    }
  }
  return lines;
}
