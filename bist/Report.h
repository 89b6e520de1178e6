// SPDX-License-Identifier: MIT
#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bist/LibraryOutput.h"

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

/// What a command has found out, for a person and for a program.
class Report {
 public:
  /// @param libraryOutput  where the library's lines arrive meanwhile
  explicit Report(LibraryOutput& libraryOutput) : output(libraryOutput) {}

  /// Adds a section, to which the lines belong that the library has written since the last one.
  /// Throws std::runtime_error when the trace file cannot be written.
  void add(Section section);

  bool passed() const { return failures().empty(); }

  /// Sections as indented text, with a last line that says the verdict.
  void printText(std::ostream& out) const;

  /// Sections as one JSON object: each section's data under its key, then "messages", "failures"
  /// and "verdict".
  void printJson(std::ostream& out) const;

 private:
  std::vector<std::string> failures() const;

  LibraryOutput& output;
  std::vector<Section> sections;
};
