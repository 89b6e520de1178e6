// SPDX-License-Identifier: MIT
#pragma once

#include <string>
#include <vector>

#include "bist/Report.h"
#include "pcie/PCIeDiagnostics.h"

/// By what a port is judged.
struct Limits {
  unsigned int prbsErrors = 0;            ///< that a PRBS test may count
  unsigned int ignoredCorrectable = 0;    ///< bits of the port's error status that do not count
  unsigned int ignoredUncorrectable = 0;  ///< and of the other one
};

/// What an instrument has: "board", its number; "modules", by slot whether one is there;
/// "controllers", by slot whether a power expander answers; "links", by port its speed and width or
/// "down". Of a board that is no SPB, "board" alone.
Json whatIsThere();

/// What an instrument is to have, and limits, from a JSON file: the keys of whatIsThere(), of which
/// some may be missing, and "limits", by port or for "all" of them, with the fields of Limits.
class Expectation {
 public:
  Expectation() = default;

  /// Throws std::runtime_error with the file and the key for one that cannot be read or makes no
  /// sense.
  explicit Expectation(const std::string& file);

  /// Expects nothing any more of a slot such as "3" or a port such as "DownstreamPort5".
  void leaveOut(const std::string& part);

  Limits limitsOf(PCIeDownstreamPorts port) const;

  /// Whether the link of a port is to be down.
  bool expectsNoLink(PCIeDownstreamPorts port) const;

  /// Whether there is anything to compare: limits alone are none.
  bool comparesSomething() const;

  /// The limits, as in the file.
  Json limits() const { return expected.value("limits", Json::object()); }

  /// A line for each expectation.
  std::vector<Line> compare(const Json& found) const;

 private:
  Json expected = Json::object();
};
