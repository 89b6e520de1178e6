// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <map>

#include "bist/output/Drawing.h"

namespace {

struct Range {
  double from;
  double to;

  void include(double value) {
    from = std::min(from, value);
    to = std::max(to, value);
  }
};

// The area of a plot, in its drawing.
constexpr double width = 760;
constexpr double height = 300;
constexpr Range across{70, 740};
constexpr Range down{250, 30};

double placed(double value, const Range& values, const Range& place) {
  return place.from + (value - values.from) / (values.to - values.from) * (place.to - place.from);
}

/// The step between marks of an axis: 1, 2 or 5 times a power of ten.
double stepOf(const Range& values) {
  const double rough = (values.to - values.from) / 6;
  const double power = std::pow(10, std::floor(std::log10(rough)));
  for (const double factor : {1, 2, 5}) {
    if (factor * power >= rough) {
      return factor * power;
    }
  }
  return 10 * power;
}

bool isPoint(const Json& point) {
  return point.is_array() && point.size() == 2 && point[0].is_number() && point[1].is_number();
}

/// The range of the points' x or y, never empty.
Range rangeOf(const std::vector<Json>& series, std::size_t axis) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  Range range{infinity, -infinity};
  for (const Json& one : series) {
    for (const Json& point : one["points"]) {
      if (isPoint(point)) {
        range.include(point[axis]);
      }
    }
  }
  if (range.from > range.to) {
    return {0, 1};
  }
  if (axis == 1) {
    range.include(0);
  }
  return range.from < range.to ? range : Range{range.from - 0.5, range.to + 0.5};
}

void addText(Xml& xml, double x, double y, const std::string& kind, const std::string& text) {
  xml.element("text", {{"class", kind}, {"x", numberText(x)}, {"y", numberText(y)}}, text);
}

void addLine(Xml& xml, const char* kind, double x1, double y1, double x2, double y2) {
  xml.empty("line", {{"class", kind},
                     {"x1", numberText(x1)},
                     {"y1", numberText(y1)},
                     {"x2", numberText(x2)},
                     {"y2", numberText(y2)}});
}

/// Where an axis has marks.
std::vector<double> marksOf(const Range& values) {
  const double step = stepOf(values);
  const auto first = static_cast<long>(std::ceil(values.from / step));
  const auto last = static_cast<long>(std::floor(values.to / step + 1e-6));
  std::vector<double> marks;
  for (long number = first; number <= last; ++number) {
    marks.push_back(static_cast<double>(number) * step);
  }
  return marks;
}

void addAxes(Xml& xml, const Range& xs, const Range& ys) {
  for (const double x : marksOf(xs)) {
    const double at = placed(x, xs, across);
    addLine(xml, "axis", at, down.from, at, down.from + 5);
    addText(xml, at, down.from + 19, "soft middle", numberText(x));
  }
  for (const double y : marksOf(ys)) {
    const double at = placed(y, ys, down);
    addLine(xml, "grid", across.from, at, across.to, at);
    addText(xml, across.from - 8, at + 4, "soft end", numberText(y));
  }
  addLine(xml, "axis", across.from, down.from, across.to, down.from);
}

/// The curve; what is no point is a gap in it.
void addCurve(Xml& xml, const Json& points, const std::string& kind, const Range& xs,
              const Range& ys) {
  std::string path;
  const char* command = "M";
  for (const Json& point : points) {
    if (!isPoint(point)) {
      command = "M";
      continue;
    }
    path += command + numberText(placed(point[0], xs, across)) + " " +
            numberText(placed(point[1], ys, down));
    command = "L";
  }
  xml.empty("path", {{"class", kind}, {"d", path}, {"stroke-linecap", "round"}});
  if (points.size() == 1 && isPoint(points[0])) {
    xml.empty("circle", {{"class", kind},
                         {"cx", numberText(placed(points[0][0], xs, across))},
                         {"cy", numberText(placed(points[0][1], ys, down))},
                         {"r", "3"}});
  }
}

/// Six colours, then the same ones dashed.
std::string curveClass(std::size_t number) {
  constexpr std::size_t colours = 6;
  return "curve s" + std::to_string(number % colours) + (number / colours % 2 == 1 ? " again" : "");
}

/// Names the curves below the plot, in columns.
void addLegend(Xml& xml, const std::vector<Json>& series, double top, std::size_t columns) {
  constexpr double row = 16;
  const double column = (width - across.from) / static_cast<double>(columns);
  for (std::size_t number = 0; number < series.size(); ++number) {
    const double x = across.from + column * static_cast<double>(number % columns);
    const std::size_t rowNumber = number / columns;
    const double y = top + row * static_cast<double>(rowNumber);
    addLine(xml, curveClass(number).c_str(), x, y, x + 24, y);
    addText(xml, x + 30, y + 4, "", series[number].value("name", ""));
  }
}

void drawSeries(Xml& xml, const std::vector<Json>& series) {
  constexpr std::size_t columns = 3;
  const Range xs = rangeOf(series, 0);
  const Range ys = rangeOf(series, 1);
  const double rows = std::ceil(static_cast<double>(series.size()) / columns);
  const Element figure(xml, "figure");
  const Element svg(xml, "svg",
                    {{"viewBox", "0 0 " + numberText(width) + " " + numberText(height + 16 * rows)},
                     {"width", numberText(width)},
                     {"role", "img"}});
  addAxes(xml, xs, ys);
  addText(xml, (across.from + across.to) / 2, height - 8, "middle", series[0].value("x", ""));
  addText(xml, 8, 18, "", series[0].value("y", ""));
  for (std::size_t number = 0; number < series.size(); ++number) {
    addCurve(xml, series[number]["points"], curveClass(number), xs, ys);
  }
  addLegend(xml, series, height + 6, columns);
}

/// Those that have both axes in common are in one plot.
void drawAllSeries(Xml& xml, const Json& all) {
  std::map<std::pair<std::string, std::string>, std::vector<Json>> plots;
  for (const Json& series : all) {
    if (series.is_object() && series.contains("points")) {
      plots[{series.value("x", ""), series.value("y", "")}].push_back(series);
    }
  }
  for (const auto& [axes, series] : plots) {
    drawSeries(xml, series);
  }
}

// The cells of a map, in its drawing.
constexpr double cellWidth = 46;
constexpr double cellHeight = 28;
constexpr double mapLeft = 64;
constexpr double mapTop = 46;

void addCell(Xml& xml, double x, double y, const Json& count, double largest) {
  const bool known = count.is_number();
  const double value = known ? count.get<double>() : 0;
  const double share = value > 0 ? 0.25 + 0.75 * std::log1p(value) / std::log1p(largest) : 1;
  xml.empty("rect", {{"class", !known      ? "cell unknown"
                               : value > 0 ? "cell hot"
                                           : "cell clear"},
                     {"x", numberText(x)},
                     {"y", numberText(y)},
                     {"width", numberText(cellWidth)},
                     {"height", numberText(cellHeight)},
                     {"fill-opacity", numberText(share)}});
  addText(xml, x + cellWidth / 2, y + cellHeight / 2 + 4,
          value > 0 && share > 0.75 ? "middle on-hot" : "middle", known ? numberText(value) : "-");
}

std::string valueText(const Json& value) {
  return value.is_number()   ? numberText(value.get<double>())
         : value.is_string() ? value.get<std::string>()
                             : value.dump();
}

double largestOf(const Json& counts) {
  double largest = 1;
  for (const Json& row : counts) {
    for (const Json& count : row) {
      largest = count.is_number() ? std::max(largest, count.get<double>()) : largest;
    }
  }
  return largest;
}

void drawMap(Xml& xml, const Json& map) {
  const Json& counts = map["counts"];
  const Json& rows = map["rowValues"];
  const Json& columns = map["columnValues"];
  const double right = mapLeft + cellWidth * static_cast<double>(columns.size());
  const double bottom = mapTop + cellHeight * static_cast<double>(rows.size());
  const Element figure(xml, "figure");
  const Element svg(xml, "svg",
                    {{"viewBox", "0 0 " + numberText(right + 8) + " " + numberText(bottom + 8)},
                     {"width", numberText(right + 8)},
                     {"role", "img"}});
  addText(xml, right, 14, "end", map["columns"]);
  addText(xml, 4, 14, "", map["rows"]);
  for (std::size_t column = 0; column < columns.size(); ++column) {
    addText(xml, mapLeft + cellWidth * (static_cast<double>(column) + 0.5), mapTop - 10,
            "soft middle", valueText(columns[column]));
  }
  const double largest = largestOf(counts);
  for (std::size_t row = 0; row < rows.size(); ++row) {
    const double y = mapTop + cellHeight * static_cast<double>(row);
    addText(xml, mapLeft - 10, y + cellHeight / 2 + 4, "soft end", valueText(rows[row]));
    for (std::size_t column = 0; column < columns.size(); ++column) {
      const bool there = row < counts.size() && column < counts[row].size();
      addCell(xml, mapLeft + cellWidth * static_cast<double>(column), y,
              there ? counts[row][column] : Json(), largest);
    }
  }
  const Json centre = map.value("centre", Json());
  if (centre.is_array() && centre.size() == 2) {
    xml.empty("rect", {{"class", "centre"},
                       {"x", numberText(mapLeft + cellWidth * centre[1].get<double>())},
                       {"y", numberText(mapTop + cellHeight * centre[0].get<double>())},
                       {"width", numberText(cellWidth)},
                       {"height", numberText(cellHeight)}});
  }
}

void drawPlotsOf(Xml& xml, const Json& data) {
  if (!data.is_object()) {
    return;
  }
  const bool plots = data.contains("series") || data.contains("map");
  if (plots && data.contains("name") && data["name"].is_string()) {
    xml.element("h3", {}, data["name"]);
  }
  if (data.contains("series")) {
    drawAllSeries(xml, data["series"]);
  }
  if (data.contains("map") && data["map"].is_object()) {
    drawMap(xml, data["map"]);
    xml.element("p", {{"class", "legend"}},
                "Errors at each setting; the outlined one is the centre.");
  }
}

}  // namespace

std::string numberText(double number) {
  char text[32];
  std::snprintf(text, sizeof text, "%.7g", number);
  return text;
}

void drawPlots(Xml& xml, const Json& data) {
  if (data.is_array()) {
    for (const Json& one : data) {
      drawPlotsOf(xml, one);
    }
  } else {
    drawPlotsOf(xml, data);
  }
}
