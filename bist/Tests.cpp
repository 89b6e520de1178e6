// SPDX-License-Identifier: MIT
#include "bist/Tests.h"

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "bist/Machine.h"
#include "bist/Slots.h"

// The table of the tests, in the order in which they are made, those of ports side by side. NAME is
// defined in the file of that name as `const Test nameTest`; the macro declares it as well.
#define TESTS(ROW) \
  ROW(board)       \
  ROW(slots)       \
  ROW(link)        \
  ROW(errors)      \
  ROW(prbs)        \
  ROW(power)       \
  ROW(expectation)

#define DECLARED(name) extern const Test name##Test;
TESTS(DECLARED)

#define NAMED(name) &name##Test,
const std::vector<const Test*> allTests = {TESTS(NAMED)};

namespace {

template <class Value>
bool contains(const std::vector<Value>& values, const Value& value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

bool isOfPorts(const Test& test) { return test.runOnPort != nullptr; }

/// Whether the test is made. That of links is before any other of ports: without a link, those say
/// nothing.
bool isMade(const Test& test, const Choice& choice) {
  return choice.has(test) || (&test == &linkTest &&
                              std::any_of(allTests.begin(), allTests.end(), [&](const Test* other) {
                                return isOfPorts(*other) && choice.has(*other);
                              }));
}

/// Whether tests of ports are to be made: slots 4 and 5 have none.
bool hasPorts(const Choice& choice) {
  const bool any = std::any_of(std::begin(mainPorts), std::end(mainPorts),
                               [&](PCIeDownstreamPorts port) { return choice.hasPort(port); });
  return any || !choice.ports.empty() || !choice.tests.empty();
}

/// Returns whether the port has been tested, and not skipped for a good reason.
bool testPort(Report& report, TestedPort& port) {
  bool tested = false;
  for (const Test* const test : allTests) {
    if (isOfPorts(*test) && isMade(*test, port.choice) && (test == &linkTest || port.linkIsUp)) {
      const Line line = test->runOnPort(report, port);
      report.line(line, {"port", static_cast<int>(port.port)});
      port.said = line.text;
      tested = tested || line.verdict != Verdict::skipped;
    }
  }
  return tested;
}

void testPorts(Report& report, const Choice& choice) {
  report.begin({"pcie", "PCIe"}, 31, 17);
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  Json ports = Json::array();
  bool tested = false;
  for (const PCIeDownstreamPorts number : mainPorts) {
    if (choice.hasPort(number)) {
      TestedPort port{diagnostics, number, choice};
      tested = testPort(report, port) || tested;
      ports.push_back(portJson(diagnostics, number, port.slot(), port.results, port.said));
    }
  }
  const bool noneIsExpected =
      std::all_of(std::begin(mainPorts), std::end(mainPorts), [&](PCIeDownstreamPorts port) {
        return !choice.hasPort(port) || choice.expectation.expectsNoLink(port);
      });
  if (!tested && (ports.empty() || !noneIsExpected)) {
    report.line({"ports", ports.empty() ? "none is chosen" : "no link is up", Verdict::notTested,
                 "", "ports"},
                {});
  }
  report.end(ports);
}

/// Results by name, each once.
class Results {
 public:
  /// Adds the results of a test that a word is in, with that in its place.
  void add(const Test& test, const std::string& word, const std::string& replacement) {
    for (const Result& result : test.results) {
      std::string name = result.name;
      const std::size_t place = name.find(word);
      if (place != std::string::npos) {
        add(name.replace(place, word.size(), replacement), result);
      }
    }
  }

  /// Adds the results of a test of the whole instrument, slot by slot.
  void add(const Test& test, const Choice& choice) {
    for (int slot = 0; slot < slotCount; ++slot) {
      if (choice.hasSlot(slot) && (&test != &powerTest || contains(choice.powered, slot))) {
        add(test, "slotN", "slot" + std::to_string(slot));
      }
    }
    for (const PCIeDownstreamPorts port : mainPorts) {
      if (choice.hasPort(port)) {
        add(test, "PORT", portName(port));
      }
    }
    for (const Result& result : test.results) {
      const std::string name = result.name;
      if (name.find("slotN") == std::string::npos && name.find("PORT") == std::string::npos) {
        add(name, result);
      }
    }
  }

  /// Adds the results of the tests of ports, port by port.
  void addThoseOfPorts(const Choice& choice) {
    for (const PCIeDownstreamPorts port : mainPorts) {
      for (const Test* const test : allTests) {
        if (choice.hasPort(port) && isOfPorts(*test) && isMade(*test, choice)) {
          add(*test, "PORT", portName(port));
        }
      }
    }
    add("ports", {"ports"});
  }

  std::vector<std::pair<std::string, Result>> all;

 private:
  void add(const std::string& name, const Result& result) {
    if (std::none_of(all.begin(), all.end(), [&](const auto& row) { return row.first == name; })) {
      all.emplace_back(name, result);
    }
  }
};

bool mayHavePower(int slot) {
  try {
    return hasExpander(slot);
  } catch (const std::exception&) {
    return true;
  }
}

}  // namespace

void Choice::prepare() {
  if (!expectationFile.empty()) {
    expectation = Expectation(expectationFile);
    if (expectation.comparesSomething()) {
      added.emplace_back(expectationTest.name);
    }
  } else if (has(expectationTest)) {
    throw std::runtime_error("the test \"expectation\" needs a file: give --expect");
  }
  for (int slot = 0; slot < slotCount; ++slot) {
    if (!hasSlot(slot)) {
      expectation.leaveOut(std::to_string(slot));
    }
  }
  for (const PCIeDownstreamPorts port : mainPorts) {
    if (!hasPort(port)) {
      expectation.leaveOut(portName(port));
    }
  }
  if (has(powerTest) && isSpb()) {
    powered = slotsWithPower(*this);
  }
}

bool Choice::has(const Test& test) const {
  const bool byDefault = tests.empty() && !test.needsAsking && (!portsOnly || isOfPorts(test));
  return byDefault || asksFor(test);
}

bool Choice::asksFor(const Test& test) const {
  return contains<std::string>(tests, test.name) || contains<std::string>(added, test.name);
}

bool Choice::hasPort(PCIeDownstreamPorts port) const {
  return (ports.empty() || contains(ports, port)) && hasSlot(slotOf(port));
}

bool Choice::hasSlot(int slot) const { return slots.empty() || contains(slots, slot); }

std::vector<int> slotsWithPower(const Choice& choice) {
  std::vector<int> slots;
  for (int slot = 0; slot < slotCount; ++slot) {
    if (choice.hasSlot(slot) && mayHavePower(slot)) {
      slots.push_back(slot);
    }
  }
  return slots;
}

void runTests(Report& report, const Choice& choice) {
  Section missing{"missing", "Not tested"};
  bool portsAreTested = false;
  for (const Test* const test : allTests) {
    if (!isMade(*test, choice)) {
      continue;
    }
    if (test->needs == Needs::spb && !isSpb()) {
      if (choice.asksFor(*test)) {
        missing.lines.push_back(
            {test->name, "this board has no slots", Verdict::notTested, "", test->name});
        missing.data.push_back(test->name);
      }
    } else if (!isOfPorts(*test)) {
      test->run(report, choice);
    } else if (!std::exchange(portsAreTested, true) && hasPorts(choice)) {
      testPorts(report, choice);
    }
  }
  if (!missing.lines.empty()) {
    report.add(missing);
  }
}

std::vector<std::pair<std::string, Result>> possibleResults(const Choice& choice) {
  Results results;
  bool portsAreThere = false;
  for (const Test* const test : allTests) {
    if (!isMade(*test, choice)) {
      continue;
    }
    if (!isOfPorts(*test)) {
      results.add(*test, choice);
    } else if (!std::exchange(portsAreThere, true)) {
      results.addThoseOfPorts(choice);
    }
  }
  return results.all;
}
