// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <stdexcept>

#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Tests.h"
#include "bist/output/Output.h"
#include "bist/soak/CsvFile.h"
#include "bist/soak/Statistics.h"

namespace {

constexpr unsigned int endless = 4294967295;
unsigned int mostMinutes = endless;
unsigned int mostCycles = endless;
Choice choice{true};
std::string csvName = "talvero-soak.csv";
std::string resumedName;

void addOptions(CLI::App& app) {
  constexpr unsigned int largest = 1000000;
  const std::string range = ", 0 to " + std::to_string(largest);
  app.add_option("--minutes", mostMinutes, "begin no cycle after so many minutes" + range)
      ->check(wholeNumber(largest))
      ->option_text("N");
  app.add_option("--cycles", mostCycles, "end after so many cycles" + range)
      ->check(wholeNumber(largest))
      ->option_text("N");
  addChoice(app, choice);
  CLI::Option* const csv =
      app.add_option("--csv", csvName, "a new file for the cycles; talvero-soak.csv if not given")
          ->option_text("FILE");
  app.add_option("--resume", resumedName,
                 "go on with the cycles of this file, which count, as does their time")
      ->excludes(csv)
      ->option_text("FILE");
  app.callback([&app] {
    if (app.count("--minutes") + app.count("--cycles") == 0) {
      throw CLI::ValidationError("how long? give --minutes or --cycles");
    }
  });
}

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Takes the cycles that a file has, whose statistics are empty yet.
void takeBefore(const CsvFile& file, Statistics& statistics) {
  const std::vector<std::string>& lines = file.lines();
  const std::string header = statistics.header();
  const std::string& cut = file.cutLine();
  const bool fits = lines.empty() ? header.compare(0, cut.size(), cut) == 0 : lines[0] == header;
  if (!fits) {
    throw std::runtime_error(resumedName + ": its columns are not those of these tests: " + header);
  }
  for (std::size_t index = 1; index < lines.size(); ++index) {
    try {
      statistics.take(lines[index]);
    } catch (const std::exception& error) {
      throw std::runtime_error(resumedName + ":" + std::to_string(index + 1) + ": " + error.what());
    }
  }
}

/// One soak, from its start or from where it was interrupted.
class Soak {
 public:
  explicit Soak(Report& to)
      : report(to),
        statistics(possibleResults(choice)),
        file(resumedName.empty() ? csvName : resumedName, !resumedName.empty()) {
    takeBefore(file, statistics);
    file.dropCutLine();
    if (file.lines().empty()) {
      file.append(statistics.header());
    }
    before = statistics.seconds();
    cyclesBefore = statistics.cycles();
  }

  void run() {
    report.begin({"soak", "Soak"}, statistics.longestName(), 0);
    tellSoFar();
    while (statistics.cycles() < mostCycles && seconds() < 60.0 * mostMinutes) {
      cycle();
      tellSoFar();
    }
  }

 private:
  double seconds() const { return before + secondsSince(start); }

  /// How long the soak will still take, about; 0 if that is not known.
  unsigned int secondsLeft() const {
    const unsigned int made = statistics.cycles() - cyclesBefore;
    double left = std::numeric_limits<double>::infinity();
    if (mostMinutes != endless) {
      left = 60.0 * mostMinutes - seconds();
    }
    if (mostCycles != endless && made != 0) {
      const double perCycle = (statistics.seconds() - before) / made;
      const double end = statistics.seconds() + perCycle * (mostCycles - statistics.cycles());
      left = std::min(left, end - seconds());
    }
    constexpr double longest = 1e9;
    return std::isinf(left) ? 0
                            : static_cast<unsigned int>(std::clamp(std::round(left), 0.0, longest));
  }

  /// With the results of a cycle that is not at its end.
  void tellSoFar() {
    Statistics all = statistics;
    if (!results.empty()) {
      all.take(nextLine());
    }
    Json data = all.json();
    data["cycles"] = statistics.cycles();
    data["csv"] = resumedName.empty() ? csvName : resumedName;
    report.soFar(all.lines(reasons), data);
  }

  /// The line of the cycle that goes on.
  std::string nextLine() const {
    return statistics.lineOf(timeText(std::chrono::system_clock::now()), seconds(), results);
  }

  /// Takes what happens in a cycle: results to `results`, messages that are new, and what is
  /// switched.
  void take(const Json& event) {
    const std::string kind = event["event"];
    const std::string test = event.value("test", "");
    if (!test.empty()) {
      if (!statistics.has(test)) {
        throw std::logic_error(test + ": its test does not name it among its results");
      }
      results[test] = event;
      if (event["verdict"] == "fail" || event["verdict"] == "not tested") {
        reasons[test] = event["failure"];
      }
      Json result = event;
      result["event"] = "result";
      report.pass(result);
      tellSoFar();
    } else if (kind == "progress") {
      report.progress(label() + ": " + event["title"].get<std::string>(), secondsLeft());
    } else if (kind == "switch" || kind == "switched back" ||
               (kind == "message" && messages.insert(key(event)).second)) {
      report.pass(event);
    }
  }

  static std::string key(const Json& event) {
    return event.dump(-1, ' ', false, Json::error_handler_t::replace);
  }

  std::string label() const { return "cycle " + std::to_string(statistics.cycles() + 1); }

  void cycle() {
    Report inCycle = report.redirected([this](const Json& event) { take(event); });
    runTests(inCycle, choice);
    Line line{label(), words()};
    line.kept = false;
    const std::string csv = nextLine();
    file.append(csv);
    statistics.take(csv);
    results.clear();
    report.line(line, {});
  }

  /// "12 passed", or what has failed.
  std::string words() const {
    std::map<std::string, std::size_t> counts;
    std::string failures;
    for (const auto& [test, event] : results) {
      const std::string verdict = event["verdict"];
      ++counts[verdict];
      if (verdict == "fail" || verdict == "not tested") {
        failures += "; " + test + ": " + event["failure"].get<std::string>();
      }
    }
    return countsText([&](const char* verdict) { return counts[verdict]; }) + failures;
  }

  Report& report;
  Statistics statistics;
  CsvFile file;
  Clock::time_point start = Clock::now();
  double before = 0;  ///< seconds that the cycles in the file have taken
  unsigned int cyclesBefore = 0;
  std::map<std::string, Json> results;         ///< of the cycle that goes on, by test
  std::map<std::string, std::string> reasons;  ///< why tests have failed last
  std::set<std::string> messages;              ///< that have come
};

void run(Report& report) {
  choice.prepare();
  Soak(report).run();
}

}  // namespace

const Command soakCommand = {"soak", "repeat the report's tests for long", Needs::spb, addOptions,
                             run};
