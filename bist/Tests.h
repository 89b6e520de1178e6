// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "bist/Expectation.h"
#include "bist/Report.h"
#include "pcie/PCIeDiagnostics.h"

/// Tests of the whole instrument, which several commands make.

/// Which tests are made, of which parts, and by which limits they are judged.
struct Choice {
  std::vector<std::string> tests = {};          ///< kinds of tests; all for none
  std::vector<PCIeDownstreamPorts> ports = {};  ///< of the main switch; all for none
  std::vector<int> slots = {};                  ///< all for none
  Expectation expectation = {};

  bool hasTest(const std::string& kind) const;
  bool hasPort(PCIeDownstreamPorts port) const;
  bool hasSlot(int slot) const;
};

/// A kind of test, for --tests of the report and for list.
struct TestKind {
  const char* name;
  const char* help;
  const char* tests;  ///< how they are named in records
  bool chosen;        ///< by --tests
};
extern const std::vector<TestKind> testKinds;

/// The names of the tests that testPorts makes; "ports" is there when it has tested none.
std::vector<std::string> portTests();

/// Tests link, errors and PRBS of each port of the main switch, of one without a link the link
/// alone, in the section that has begun, which it ends.
///
/// @param seconds  how long PRBS is tested on each port
void testPorts(Report& report, PCIeDiagnostics& diagnostics, unsigned int seconds,
               const Choice& choice = {});

/// The slots that have a power controller, of those chosen.
std::vector<int> slotsWithPower(const Choice& choice = {});

/// The names of the tests that cyclePower makes; "backplane" is there when it cannot.
std::vector<std::string> powerTests(const std::vector<int>& slots);

/// Turns the modules in the slots off and on, in a section, and leaves each as it was.
void cyclePower(Report& report, const std::vector<int>& slots);
