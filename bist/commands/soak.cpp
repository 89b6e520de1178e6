// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cmath>
#include <limits>
#include <set>

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
unsigned int prbsSeconds = 1;
bool powerCycle = false;
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
  addSeconds(app, prbsSeconds, "how long PRBS is tested on each port, 0 to 86400; 1 if not given");
  app.add_flag("--power-cycle", powerCycle,
               "also turn each module off and on; modules that were off stay off")
      ->disable_flag_override();
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
        slots(powerCycle ? slotsWithPower() : std::vector<int>()),
        statistics(tests()),
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
    report.begin({"soak", "Soak"}, longestName(), 0);
    PCIeDiagnostics diagnostics;
    report.takeMessages({});
    tellSoFar();
    while (statistics.cycles() < mostCycles && seconds() < 60.0 * mostMinutes) {
      cycle(diagnostics);
      tellSoFar();
    }
  }

 private:
  std::vector<std::string> tests() const {
    std::vector<std::string> names = portTests();
    if (powerCycle) {
      const std::vector<std::string> ofPower = powerTests(slots);
      names.insert(names.end(), ofPower.begin(), ofPower.end());
    }
    return names;
  }

  std::size_t longestName() const {
    std::size_t longest = 0;
    for (const std::string& name : tests()) {
      longest = std::max(longest, name.size());
    }
    return longest;
  }

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
    return std::isinf(left) ? 0 : static_cast<unsigned int>(std::max(0.0, std::round(left)));
  }

  void tellSoFar() {
    Json data = statistics.json();
    data["csv"] = resumedName.empty() ? csvName : resumedName;
    report.soFar(statistics.lines(), data);
  }

  /// Takes what happens in a cycle: results to `results`, messages that are new, and what is
  /// switched.
  void take(const Json& event) {
    const std::string kind = event["event"];
    if (kind == "line") {
      results[event["test"].get<std::string>()] = event;
    } else if (kind == "progress") {
      report.progress(label() + ": " + event["title"].get<std::string>(), secondsLeft());
    } else if (kind == "switch" || kind == "switched back" ||
               (kind == "message" && messages.insert(event.dump()).second)) {
      report.pass(event);
    }
  }

  std::string label() const { return "cycle " + std::to_string(statistics.cycles() + 1); }

  void cycle(PCIeDiagnostics& diagnostics) {
    results.clear();
    Report inCycle = report.redirected([this](const Json& event) { take(event); });
    inCycle.begin({}, 0, 0);
    testPorts(inCycle, diagnostics, prbsSeconds);
    if (powerCycle) {
      cyclePower(inCycle, slots);
    }
    Line line{label(), words()};
    line.kept = false;
    const std::string csv =
        statistics.lineOf(timeText(std::chrono::system_clock::now()), seconds(), results);
    file.append(csv);
    statistics.take(csv);
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
  std::vector<int> slots;
  Statistics statistics;
  CsvFile file;
  Clock::time_point start = Clock::now();
  double before = 0;  ///< seconds that the cycles in the file have taken
  unsigned int cyclesBefore = 0;
  std::map<std::string, Json> results;  ///< of the cycle that goes on, by test
  std::set<std::string> messages;       ///< that have come
};

void run(Report& report) { Soak(report).run(); }

}  // namespace

const Command soakCommand = {
    "soak", "repeat the report's tests for long", Needs::spb, addOptions, true, run};
