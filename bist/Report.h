#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

using Json = nlohmann::ordered_json;

enum class Verdict { pass, fail, none };

Verdict passIf(bool good);

/// One statement about the instrument.
struct Line {
  std::string label;
  std::string text;
  Verdict verdict = Verdict::none;
};

/// The findings on one subject.
struct Section {
  std::string key;  ///< of `data` in the JSON output
  std::string title;
  std::vector<Line> lines = {};
  Json data = {};
  std::vector<std::string> messages = {};  ///< failure lines that the library wrote meanwhile
  bool showTrace = false;                  ///< its other lines are of interest too
};

bool passed(const std::vector<Section>& sections);

/// Sections as indented text, with a last line that says the verdict.
void printText(std::ostream& out, const std::vector<Section>& sections);

/// Sections as one JSON object: each section's data under its key, then "messages", "failures" and
/// "verdict".
void printJson(std::ostream& out, const std::vector<Section>& sections);
