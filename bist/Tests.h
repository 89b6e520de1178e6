// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "bist/Command.h"
#include "bist/Expectation.h"
#include "bist/Ports.h"
#include "bist/Report.h"

/// The tests of the instrument that report makes once and soak repeats.

struct Test;

/// Which tests are made, of which parts, and how they are judged.
struct Choice {
  bool portsOnly = false;                       ///< none but those of ports without being asked
  std::vector<std::string> tests = {};          ///< by name; those that need no asking for none
  std::vector<std::string> added = {};          ///< to these
  std::vector<PCIeDownstreamPorts> ports = {};  ///< of the main switch; all for none
  std::vector<int> slots = {};                  ///< all for none
  unsigned int seconds = 1;                     ///< for which PRBS is tested on each port
  std::string expectationFile = {};             ///< empty for none
  Expectation expectation = {};

  std::vector<int> powered = {};  ///< those that the power test turns off and on

  /// Reads the expectation and adds the test that compares with it, and finds out which of the
  /// slots have a power controller in the beginning, if power is tested. Throws std::runtime_error
  /// as Expectation does, and where the test has no file.
  void prepare();

  bool has(const Test& test) const;
  bool asksFor(const Test& test) const;  ///< by its name or by an option
  bool hasPort(PCIeDownstreamPorts port) const;
  bool hasSlot(int slot) const;
};

/// A port of the main switch while it is tested.
struct TestedPort {
  PCIeDiagnostics& diagnostics;
  PCIeDownstreamPorts port;
  const Choice& choice;
  DiagnosticsResults results = {};  ///< of the last test that has asked the library
  bool linkIsUp = false;
  std::string said = {};  ///< the text of its last line

  int slot() const { return slotOf(port); }
  std::string title() const { return portTitle(port, slot()); }
  Limits limits() const { return choice.expectation.limitsOf(port); }
  std::string test(const std::string& what) const { return portTest(port, slot(), what); }
};

/// A figure of a result, which soak keeps: its name in the CSV file and in the line's figures. It
/// is a number, a truth value, or a hexadecimal number as text; anything else is no figure.
struct Figure {
  const char* column;
  const char* key;
};

/// A result of a test.
struct Result {
  const char* name;  ///< PORT stands for each port, N in slotN for each slot
  std::vector<Figure> figures = {};
  const char* statistic = "";  ///< the column whose minimum, median and maximum soak tells
};

/// A test. Each is defined in a file of its own and has a row in the table of Tests.cpp.
struct Test {
  const char* name;
  const char* help;
  std::vector<Result> results;
  Needs needs;
  bool needsAsking;  ///< by its name or by an option
  /// Tests the whole instrument in sections of its own; null for a test of ports.
  void (*run)(Report& report, const Choice& choice);
  /// Tests one port, whose link is up unless this is the test of that; null for the others.
  Line (*runOnPort)(Report& report, TestedPort& port);
};

/// The slots that have a power controller, of those chosen, and those of which the modules'
/// topology keeps that from being found out: then a test fails.
std::vector<int> slotsWithPower(const Choice& choice);

/// All of them, in the order in which they are made.
extern const std::vector<const Test*> allTests;

/// Makes the chosen tests that the board can have. A port's tests come one after the other, after
/// that of its link, and only if the link is up.
void runTests(Report& report, const Choice& choice);

/// The results that the chosen tests may have, by name, in the order of the tests.
std::vector<std::pair<std::string, Result>> possibleResults(const Choice& choice);
