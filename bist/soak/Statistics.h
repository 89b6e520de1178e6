// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "bist/Tests.h"

/// Values of one kind, of which there may be very many that are alike.
class Values {
 public:
  void add(double value);

  bool empty() const { return number == 0; }
  double minimum() const { return counts.begin()->first; }
  double maximum() const { return counts.rbegin()->first; }
  double median() const;

 private:
  double at(std::uint64_t place) const;

  std::map<double, std::uint64_t> counts;
  std::uint64_t number = 0;
};

/// A figure over the cycles, in some hundred points at most: each is the greatest value of a number
/// of cycles.
class Series {
 public:
  void add(unsigned int cycle, double value);
  Json points() const;

 private:
  struct Point {
    unsigned int cycle;
    double value;
  };
  std::vector<Point> kept;
  unsigned int cyclesOfPoint = 1;
  unsigned int cyclesOfLast = 0;
};

/// What a test has said in the cycles so far.
struct SoakedTest {
  std::string name;
  Result result;
  std::map<std::string, unsigned int> verdicts = {};
  Values values = {};        ///< of the statistic
  Series series = {};        ///< of the same
  double status = -1;        ///< the last Link Status; -1 for none yet
  unsigned int changes = 0;  ///< how often it was another one than before
  double bits = 0;
  double errors = 0;  ///< in these bits

  unsigned int runs() const;
  unsigned int count(const std::string& verdict) const;
};

/// The cycles of a soak: lines of CSV, and their statistics.
class Statistics {
 public:
  /// @param results  that a cycle may have, by name
  explicit Statistics(const std::vector<std::pair<std::string, Result>>& results);

  bool has(const std::string& test) const;
  std::size_t longestName() const;

  /// The first line, which names the columns.
  std::string header() const;

  /// The line of the cycle that comes next.
  ///
  /// @param results  the lines of its tests, as events by the tests' names
  std::string lineOf(const std::string& time, double seconds,
                     const std::map<std::string, Json>& results) const;

  /// Takes the line of the next cycle. One that does not fit is an exception.
  void take(const std::string& line);

  unsigned int cycles() const { return done; }

  /// From the start to the end of the last cycle.
  double seconds() const { return elapsed; }

  /// A line for each test that has said anything.
  ///
  /// @param reasons  why tests have failed last
  std::vector<Line> lines(const std::map<std::string, std::string>& reasons) const;

  /// All as JSON.
  Json json() const;

 private:
  std::vector<SoakedTest> tests;
  unsigned int done = 0;
  double elapsed = 0;
  unsigned int failedCycles = 0;
  Json firstFailedCycles = Json::array();
};
