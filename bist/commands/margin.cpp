// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>

#include "bist/Command.h"
#include "bist/Options.h"
#include "bist/Ports.h"
#include "bist/SettingsMap.h"
#include "bist/Undo.h"

namespace {

PortOption target;
unsigned int seconds = 1;
Range driveLevels = {0, lastSetting};
Range postCursors = {0, lastSetting};
std::string csvFile;

void addOptions(CLI::App& app) {
  target.addTo(app);
  addSeconds(app, seconds, "how long with each setting, 0 to 86400; 1 unless given");
  addRange(app, "--drive-level", driveLevels, lastSetting, "drive levels; 0-15 unless given");
  addRange(app, "--post-cursor", postCursors, lastSetting,
           "post-cursor emphases; 0-15 unless given");
  app.add_option("--csv", csvFile, "write a line for each setting to this file, as it goes")
      ->option_text("FILE");
}

/// What a test with some settings has found.
struct Point {
  Settings settings;
  bool isSet = false;  ///< the settings read back, or else there was no test
  DiagnosticsResults results = {};
  Line line = {};  ///< of the test

  /// Whether errors could be counted.
  bool isCounted() const { return isSet && obstacle(results).empty() && results.prbsSync; }
  std::string text() const { return isSet ? line.text : "setting does not read back"; }
  std::string cell() const {
    return !isSet                    ? "?"
           : !isCounted()            ? "!"
           : results.prbsErrors == 0 ? "."
                                     : std::to_string(results.prbsErrors);
  }
  Json errors() const { return isCounted() ? Json(results.prbsErrors) : Json(nullptr); }
  double tested() const { return isSet ? line.figures["seconds"].get<double>() : 0; }
};

/// The file of --csv, if it is given.
class Csv {
 public:
  Csv() {
    if (!csvFile.empty()) {
      file.open(csvFile);
      write("drive,postcursor,seconds,sync,errors,link");
    }
  }

  void add(const Point& point) {
    char text[80];
    const auto& [driveLevel, postCursor] = point.settings;
    const auto bit = [&](bool value) { return !point.isSet ? "" : value ? "1" : "0"; };
    std::snprintf(text, sizeof text, "%d,%d,%.1f,%s,%s,%s", driveLevel, postCursor, point.tested(),
                  bit(point.results.prbsSync),
                  point.isCounted() ? std::to_string(point.results.prbsErrors).c_str() : "",
                  bit(point.results.downstreamLinkUp));
    write(text);
  }

 private:
  void write(const std::string& line) {
    if (!csvFile.empty() && !(file << line << std::endl)) {
      throw std::runtime_error(csvFile + ": cannot be written");
    }
  }

  std::ofstream file;
};

std::string padded(const std::string& text, int width) {
  return std::string(
             std::max<std::size_t>(static_cast<std::size_t>(width), text.size()) - text.size(),
             ' ') +
         text;
}

constexpr char rowTitle[] = "drive level";
constexpr int columnWidth = 4;

Json settingsJson(Settings settings) {
  return {{"driveLevel", settings.first}, {"postCursor", settings.second}};
}

std::string textOf(Settings settings) {
  return "drive level " + std::to_string(settings.first) + ", post-cursor " +
         std::to_string(settings.second);
}

std::vector<int> valuesOf(const Range& range) {
  std::vector<int> values;
  for (int value = range.first; value <= range.last; ++value) {
    values.push_back(value);
  }
  return values;
}

bool isSwept(Settings settings) {
  const auto holds = [](const Range& range, int value) {
    return range.first <= value && value <= range.last;
  };
  return holds(driveLevels, settings.first) && holds(postCursors, settings.second);
}

/// Tests the port with each of the settings, row by row, and reports the rows.
class Sweep {
 public:
  Sweep(Report& takesReport, PCIeDiagnostics& library)
      : report(takesReport), diagnostics(library) {}

  /// @param afterPoint  called after each point, with the row so far
  void run(const std::function<void(const Line& row)>& afterPoint) {
    std::string titles;
    for (const int postCursor : valuesOf(postCursors)) {
      titles += padded(std::to_string(postCursor), columnWidth);
    }
    showRow("", " post-cursor");
    showRow(rowTitle, titles);
    for (const int driveLevel : valuesOf(driveLevels)) {
      std::string cells;
      const std::string label = padded(std::to_string(driveLevel), sizeof rowTitle - 1);
      for (const int postCursor : valuesOf(postCursors)) {
        cells += padded(test({driveLevel, postCursor}).cell(), columnWidth);
        afterPoint(row(label, cells));
      }
      showRow(label, cells);
      afterPoint(row("", ""));
    }
  }

  std::vector<Point> points;

 private:
  /// A row of the map, whose points are among the results.
  static Line row(const std::string& label, const std::string& cells) {
    Line line{label, cells};
    line.kept = false;
    return line;
  }

  void showRow(const std::string& label, const std::string& cells) {
    report.line(row(label, cells), target.subject());
  }

  const Point& test(Settings settings) {
    showProgress();
    Point point{settings};
    point.isSet = set(settings);
    if (point.isSet) {
      point.line =
          runPrbs("", report, diagnostics, target.port, target.slot(), seconds, point.results);
    }
    report.takeOtherMessages(target.subject(), {"prbsErrors: ", "prbsSync failed"});
    csv.add(point);
    points.push_back(point);
    return points.back();
  }

  bool set(Settings settings) {
    const auto isSet = [this](const Field& field, unsigned int value) {
      return diagnostics.getDevicePortBits(target.port, field.offset, field.mask, 0) == value;
    };
    const auto driveLevel = static_cast<unsigned int>(settings.first);
    const auto postCursor = static_cast<unsigned int>(settings.second);
    diagnostics.setDriveLevel(target.port, 0, driveLevel);
    diagnostics.setPostCursorEmphasis(target.port, 0, postCursor);
    return isSet(driveLevelField, driveLevel) && isSet(postCursorField, postCursor);
  }

  /// With the time that is left if no test ends early.
  void showProgress() {
    const std::size_t all = valuesOf(driveLevels).size() * valuesOf(postCursors).size();
    const std::size_t halves = std::max(1U, 2 * seconds) * (all - points.size());
    report.progress("point " + std::to_string(points.size() + 1) + " of " + std::to_string(all) +
                        " on " + target.title(),
                    static_cast<unsigned int>((halves + 1) / 2));
  }

  Report& report;
  PCIeDiagnostics& diagnostics;
  Csv csv;
};

std::string textOf(const Margin& margin) {
  return margin.isTested ? (margin.isOpen ? "at least " : "") + std::to_string(margin.steps)
         : margin.isOpen ? "not tested"
                         : "0";
}

/// What a sweep has found, and where the present settings lie in it.
class Finding {
 public:
  Finding(const std::vector<Point>& swept, Settings presentSettings)
      : points(swept), present(presentSettings) {
    for (const Point& point : points) {
      map.add(point.settings,
              point.isCounted() ? std::optional(point.results.prbsErrors) : std::nullopt);
    }
    region = map.region(present);
    if (!region.empty()) {
      centre = map.centre(region, present);
    }
  }

  std::vector<Line> lines() const {
    std::string good = "none";
    if (centre) {
      good = std::to_string(region.size()) + (region.size() == 1 ? " setting" : " settings") +
             ", centre at " + textOf(*centre) +
             (map.isOpen(region) ? "; may go on beyond the sweep" : "");
    }
    const bool inside = std::find(region.begin(), region.end(), present) != region.end();
    return {{"good region", good},
            {"present", textOf(present) + (inside ? ", in it" : ", not in it")},
            marginLine()};
  }

  Json data() const {
    const auto pointsJson = [this] {
      Json all = Json::array();
      for (const Point& point : points) {
        Json json = settingsJson(point.settings);
        json.update({{"result", point.text()},
                     {"seconds", point.tested()},
                     {"sync", point.results.prbsSync},
                     {"errors", point.errors()},
                     {"link", point.results.downstreamLinkUp}});
        all.push_back(json);
      }
      return all;
    };
    return {{"port", static_cast<int>(target.port)},
            {"name", portName(target.port)},
            {"slot", target.slot()},
            {"result", marginLine().text},
            {"present", settingsJson(present)},
            {"margin", marginJson()},
            {"centre", centre ? settingsJson(*centre) : Json(nullptr)},
            {"map", mapJson()},
            {"points", pointsJson()}};
  }

 private:
  /// A direction from the present settings. Those of a setting follow each other.
  struct Direction {
    const char* setting;
    const char* key;
    const char* name;
    Settings step;
  };
  static constexpr Direction directions[] = {{"drive level", "driveLevel", "down", {-1, 0}},
                                             {"drive level", "driveLevel", "up", {1, 0}},
                                             {"post-cursor", "postCursor", "down", {0, -1}},
                                             {"post-cursor", "postCursor", "up", {0, 1}}};

  /// The steps in each direction that has been tested; null without good present settings.
  Json marginJson() const {
    Json json;
    for (const Direction& direction : directions) {
      const Margin margin = map.margin(present, direction.step);
      if (map.isGood(present)) {
        json[direction.key][direction.name] = margin.isTested ? Json(margin.steps) : Json(nullptr);
      }
    }
    return json;
  }

  std::string marginText() const {
    std::string text;
    const char* setting = "";
    for (const Direction& direction : directions) {
      if (setting == direction.setting) {
        text += ", ";
      } else {
        text += (text.empty() ? "" : "; ") + std::string(direction.setting) + " ";
      }
      setting = direction.setting;
      text += direction.name + std::string(" ") + textOf(map.margin(present, direction.step));
    }
    return text;
  }

  /// Whether the settings beside the present ones, as far as they are in the sweep, are good.
  Verdict marginVerdict() const {
    Verdict verdict = Verdict::notTested;
    for (const Direction& direction : directions) {
      const Margin margin = map.margin(present, direction.step);
      if (margin.isTested && verdict != Verdict::fail) {
        verdict = passIf(margin.steps > 0);
      }
    }
    return verdict;
  }

  Line marginLine() const {
    Line line{"margin", marginText(), marginVerdict()};
    const auto tested = std::find_if(points.begin(), points.end(), [this](const Point& point) {
      return point.settings == present;
    });
    if (tested == points.end()) {
      line.text = isSwept(present) ? "the present settings are not tested yet"
                                   : "present settings are not in the sweep";
      line.verdict = Verdict::notTested;
    } else if (!map.isGood(present)) {
      line.text = tested->text() + " with the present settings";
      line.verdict = Verdict::fail;
    }
    line.test = target.test("margin");
    line.figures = {{"present", settingsJson(present)},
                    {"errors", tested == points.end() ? Json(nullptr) : tested->errors()},
                    {"margin", marginJson()}};
    line.limit = {{"errors", 0}, {"steps", 1}};
    return line;
  }

  Json mapJson() const {
    const std::vector<int> rows = valuesOf(driveLevels);
    const std::vector<int> columns = valuesOf(postCursors);
    Json counts = Json::array();
    for (std::size_t index = 0; index < points.size(); ++index) {
      if (index % columns.size() == 0) {
        counts.push_back(Json::array());
      }
      counts.back().push_back(points[index].errors());
    }
    while (!counts.empty() && counts.back().size() < columns.size()) {
      counts.back().push_back(nullptr);
    }
    return {{"rows", "drive level"},
            {"columns", "post-cursor"},
            {"rowValues",
             std::vector<int>(rows.begin(), rows.begin() + static_cast<int>(counts.size()))},
            {"columnValues", columns},
            {"counts", counts},
            {"centre",
             centre ? Json{centre->first - rows[0], centre->second - columns[0]} : Json(nullptr)}};
  }

  const std::vector<Point>& points;
  Settings present;
  SettingsMap map;
  std::vector<Settings> region;
  std::optional<Settings> centre;
};

void run(Report& report) {
  Section section{"margin", "Margin of " + target.title()};
  section.about = target.subject();
  report.begin(section, sizeof rowTitle - 1, 0);
  PCIeDiagnostics diagnostics;
  report.takeMessages({});
  const std::string reason = obstacle(target.watch(report, diagnostics, 0, false));
  if (!reason.empty()) {
    Line line{"margin", reason, Verdict::fail};
    line.test = target.test("margin");
    report.line(line, section.about);
    report.end({{"port", static_cast<int>(target.port)},
                {"name", portName(target.port)},
                {"slot", target.slot()},
                {"result", reason}});
    return;
  }
  const Json before =
      undoOfFields(diagnostics, target.port, target.slot(), {driveLevelField, postCursorField});
  Sweep sweep(report, diagnostics);
  report.willSwitch(before);
  const Settings present = {before["values"][0]["value"], before["values"][1]["value"]};
  sweep.run([&](const Line& row) {
    report.soFar(row.text.empty() ? std::vector<Line>() : std::vector<Line>{row},
                 Finding(sweep.points, present).data());
  });
  putBack(diagnostics, before);
  report.switchedBack();
  const Finding finding(sweep.points, present);
  for (const Line& line : finding.lines()) {
    report.line(line, section.about);
  }
  report.end(finding.data());
}

}  // namespace

const Command marginCommand = {
    "margin", "find the transmitter settings of a PCIe port that bring no errors about", Needs::spb,
    addOptions, run};
