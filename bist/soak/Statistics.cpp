// SPDX-License-Identifier: MIT
#include "bist/soak/Statistics.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "bist/soak/Poisson.h"

namespace {

constexpr std::size_t mostPoints = 256;
constexpr std::size_t mostFailedCycles = 100;
constexpr double lastPrbsCount = 255;  // where the counter stops

std::string text(const char* format, double number) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, format, number);
  return buffer;
}

/// A number of few digits, such as "0.105".
std::string brief(double number) { return text("%.3g", number); }

/// A figure as the column has it.
std::string figureText(const Figure& column, const Json& figures) {
  const Json figure = figures.is_object() ? figures.value(column.key, Json()) : Json();
  if (figure.is_string()) {
    return figure;
  }
  if (figure.is_boolean()) {
    return figure.get<bool>() ? "1" : "0";
  }
  return figure.is_number()
             ? text(column.column == std::string("seconds") ? "%.3f" : "%.0f", figure)
             : "";
}

std::vector<std::string> fieldsOf(const std::string& line) {
  std::vector<std::string> fields(1);
  for (const char character : line) {
    if (character == ',') {
      fields.emplace_back();
    } else {
      fields.back() += character;
    }
  }
  return fields;
}

/// A number that is no less than 0. With 0x before it, it is whole and hexadecimal.
double numberOf(const std::string& field) {
  const char* const end = field.data() + field.size();
  const bool isHexadecimal = field.compare(0, 2, "0x") == 0;
  double number = 0;
  const auto [rest, error] =
      isHexadecimal ? std::from_chars(field.data() + 2, end, number, std::chars_format::hex)
                    : std::from_chars(field.data(), end, number, std::chars_format::fixed);
  if (error != std::errc() || rest != end || std::signbit(number) || !std::isfinite(number)) {
    throw std::runtime_error("\"" + field + "\" is no number");
  }
  return number;
}

bool isVerdict(const std::string& field) {
  constexpr const char* verdicts[] = {"pass", "fail", "skipped", "not tested", ""};
  return std::find(std::begin(verdicts), std::end(verdicts), field) != std::end(verdicts);
}

/// Where bits have been tested, it has been counted how many were wrong.
void requireCount(const std::map<std::string, double>& figures) {
  const auto bits = figures.find("bits");
  if (bits != figures.end() && bits->second > 0 && figures.count("errors") == 0) {
    throw std::runtime_error("bits without errors in them");
  }
}

/// Takes what a cycle says of a test: the verdict and its figures.
void takeResult(SoakedTest& test, unsigned int cycle, const std::string& verdict,
                const std::map<std::string, double>& figures) {
  if (!verdict.empty()) {
    ++test.verdicts[verdict];
  }
  const std::string figure = test.result.statistic;
  if (figures.count(figure) != 0) {
    test.values.add(figures.at(figure));
    test.series.add(cycle, figures.at(figure));
  }
  if (figures.count("status") != 0) {
    const double status = figures.at("status");
    test.changes += test.status >= 0 && status != test.status ? 1 : 0;
    test.status = status;
  }
  if (figures.count("bits") != 0) {
    test.bits += figures.at("bits");
    test.errors += figures.at("bits") > 0 ? figures.at("errors") : 0;
  }
}

Verdict verdictOf(const SoakedTest& test) {
  return test.count("fail") != 0         ? Verdict::fail
         : test.count("not tested") != 0 ? Verdict::notTested
         : test.count("pass") != 0       ? Verdict::pass
                                         : Verdict::skipped;
}

bool hasFigure(const SoakedTest& test, const std::string& column) {
  return std::any_of(test.result.figures.begin(), test.result.figures.end(),
                     [&](const Figure& figure) { return figure.column == column; });
}

bool countsBits(const SoakedTest& test) { return hasFigure(test, "bits"); }

/// Whether more errors than these have come in the bits, perhaps.
bool isAtLeast(const SoakedTest& test) {
  return !test.values.empty() && test.values.maximum() >= lastPrbsCount;
}

Json figuresOf(const SoakedTest& test) {
  Json figures = {{"runs", test.runs()},
                  {"failures", test.count("fail")},
                  {"skipped", test.count("skipped")},
                  {"notTested", test.count("not tested")}};
  if (!test.values.empty()) {
    figures["figure"] = test.result.statistic;
    figures["minimum"] = test.values.minimum();
    figures["median"] = test.values.median();
    figures["maximum"] = test.values.maximum();
  }
  if (hasFigure(test, "status")) {
    figures["statusChanges"] = test.changes;
  }
  if (countsBits(test)) {
    figures["bits"] = test.bits;
    figures["errors"] = test.errors;
    const Bounds bounds = poissonBounds(test.errors);
    const bool any = test.bits > 0;
    figures["errorRate"] = any ? Json(test.errors / test.bits) : Json();
    figures["errorRateLower"] = any ? Json(bounds.lower / test.bits) : Json();
    figures["errorRateUpper"] = any && !isAtLeast(test) ? Json(bounds.upper / test.bits) : Json();
  }
  return figures;
}

/// "1.2e+12 bits, error rate below 2.5e-12 (95 %)".
std::string errorRateText(const SoakedTest& test, const Json& figures) {
  std::string words = text("%.2g", test.bits) + " bits";
  const auto rate = [&](const char* key) { return text("%.1e", figures[key]); };
  if (test.bits == 0) {
    return words;
  }
  if (test.errors == 0) {
    return words + ", error rate below " + rate("errorRateUpper") + " (95 %)";
  }
  words += ", error rate " + std::string(isAtLeast(test) ? "at least " : "") + rate("errorRate");
  return isAtLeast(test)
             ? words
             : words + " (95 %: " + rate("errorRateLower") + " to " + rate("errorRateUpper") + ")";
}

std::string plural(unsigned int number, const char* word) {
  return std::to_string(number) + " " + word + (number == 1 ? "" : "s");
}

std::string textOf(const SoakedTest& test, const Json& figures) {
  std::string words =
      plural(test.runs(), "run") + ", " + std::to_string(test.count("fail")) + " failed";
  for (const char* const verdict : {"skipped", "not tested"}) {
    const unsigned int number = test.count(verdict);
    words += number == 0 ? "" : ", " + std::to_string(number) + " " + verdict;
  }
  if (figures.contains("figure")) {
    const Values& values = test.values;
    words += std::string("; ") + test.result.statistic + " " + brief(values.minimum());
    if (values.maximum() != values.minimum()) {
      words += " to " + brief(values.maximum()) + ", median " + brief(values.median());
    }
  }
  if (test.changes != 0) {
    words += "; " + plural(test.changes, "status change");
  }
  return countsBits(test) ? words + "; " + errorRateText(test, figures) : words;
}

}  // namespace

void Values::add(double value) {
  ++counts[value];
  ++number;
}

double Values::at(std::uint64_t place) const {
  auto value = counts.begin();
  for (; place >= value->second; ++value) {
    place -= value->second;
  }
  return value->first;
}

double Values::median() const { return (at((number - 1) / 2) + at(number / 2)) / 2; }

void Series::add(unsigned int cycle, double value) {
  if (cyclesOfLast == cyclesOfPoint || kept.empty()) {
    if (kept.size() == mostPoints) {
      for (std::size_t index = 0; index < mostPoints / 2; ++index) {
        const Point& first = kept[2 * index];
        const Point& second = kept[2 * index + 1];
        kept[index] = second.value > first.value ? second : first;
      }
      kept.resize(mostPoints / 2);
      cyclesOfPoint *= 2;
    }
    kept.push_back({cycle, value});
    cyclesOfLast = 0;
  } else if (value > kept.back().value) {
    kept.back() = {cycle, value};
  }
  ++cyclesOfLast;
}

Json Series::points() const {
  Json points = Json::array();
  for (const Point& point : kept) {
    points.push_back({point.cycle, point.value});
  }
  return points;
}

unsigned int SoakedTest::runs() const { return count("pass") + count("fail"); }

unsigned int SoakedTest::count(const std::string& verdict) const {
  const auto found = verdicts.find(verdict);
  return found == verdicts.end() ? 0 : found->second;
}

Statistics::Statistics(const std::vector<std::pair<std::string, Result>>& results) {
  for (const auto& [name, result] : results) {
    tests.push_back({name, result});
  }
}

bool Statistics::has(const std::string& test) const {
  return std::any_of(tests.begin(), tests.end(),
                     [&](const SoakedTest& soaked) { return soaked.name == test; });
}

std::size_t Statistics::longestName() const {
  std::size_t longest = 0;
  for (const SoakedTest& test : tests) {
    longest = std::max(longest, test.name.size());
  }
  return longest;
}

std::string Statistics::header() const {
  std::string line = "cycle,time,seconds";
  for (const SoakedTest& test : tests) {
    line += "," + test.name;
    for (const Figure& figure : test.result.figures) {
      line += "," + test.name + "." + figure.column;
    }
  }
  return line;
}

std::string Statistics::lineOf(const std::string& time, double seconds,
                               const std::map<std::string, Json>& results) const {
  std::string line = std::to_string(done + 1) + "," + time + "," + text("%.3f", seconds);
  for (const SoakedTest& test : tests) {
    const auto result = results.find(test.name);
    const std::string verdict = result == results.end() ? "" : result->second["verdict"];
    const bool ran = verdict == "pass" || verdict == "fail";
    line += "," + verdict;
    for (const Figure& figure : test.result.figures) {
      line += "," + (ran ? figureText(figure, result->second["figures"]) : "");
    }
  }
  return line;
}

void Statistics::take(const std::string& line) {
  const std::vector<std::string> fields = fieldsOf(line);
  const auto columns = fieldsOf(header()).size();
  if (fields.size() != columns) {
    throw std::runtime_error(std::to_string(fields.size()) + " columns instead of " +
                             std::to_string(columns));
  }
  if (fields[0] != std::to_string(done + 1)) {
    throw std::runtime_error("\"" + fields[0] + "\" instead of cycle " + std::to_string(done + 1));
  }
  const double seconds = numberOf(fields[2]);
  std::vector<std::pair<std::string, std::map<std::string, double>>> results;
  auto field = fields.begin() + 3;
  for (const SoakedTest& test : tests) {
    results.push_back({*field++, {}});
    if (!isVerdict(results.back().first)) {
      throw std::runtime_error("\"" + results.back().first + "\" is no verdict");
    }
    for (const Figure& figure : test.result.figures) {
      if (!field->empty()) {
        results.back().second[figure.column] = numberOf(*field);
      }
      ++field;
    }
    requireCount(results.back().second);
  }
  ++done;
  elapsed = seconds;
  Json failed = Json::array();
  for (std::size_t index = 0; index < tests.size(); ++index) {
    takeResult(tests[index], done, results[index].first, results[index].second);
    if (results[index].first == "fail") {
      failed.push_back(tests[index].name);
    }
  }
  failedCycles += failed.empty() ? 0 : 1;
  if (!failed.empty() && firstFailedCycles.size() < mostFailedCycles) {
    firstFailedCycles.push_back({{"cycle", done}, {"time", fields[1]}, {"tests", failed}});
  }
}

std::vector<Line> Statistics::lines(const std::map<std::string, std::string>& reasons) const {
  std::vector<Line> lines;
  for (const SoakedTest& test : tests) {
    if (!test.verdicts.empty()) {
      const Json figures = figuresOf(test);
      Line line{test.name, textOf(test, figures), verdictOf(test)};
      line.test = test.name;
      if (reasons.count(test.name) != 0) {
        line.failure = line.text + "; last: " + reasons.at(test.name);
      }
      line.figures = figures;
      line.limit = {{"failures", 0}};
      lines.push_back(line);
    }
  }
  return lines;
}

Json Statistics::json() const {
  Json statistics = Json::object();
  Json series = Json::array();
  for (const SoakedTest& test : tests) {
    if (!test.verdicts.empty()) {
      statistics[test.name] = figuresOf(test);
    }
    if (!test.values.empty()) {
      series.push_back({{"name", test.name},
                        {"x", "cycle"},
                        {"y", test.result.statistic},
                        {"points", test.series.points()}});
    }
  }
  return {{"cycles", done},
          {"seconds", elapsed},
          {"failedCycles", failedCycles},
          {"firstFailedCycles", firstFailedCycles},
          {"tests", statistics},
          {"series", series}};
}
