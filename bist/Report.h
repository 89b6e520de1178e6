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

/// "135, 171" of {"135", "171"}.
std::string joined(const std::vector<std::string>& words);

/// One statement about the instrument. Its words are those of the command that makes it.
struct Line {
  std::string label;
  std::string text;
  Verdict verdict = Verdict::none;
  std::string failure = {};  ///< what has failed, where the text is a row of a table
};

/// A part of the instrument by its number, such as {"slot", 1}; no part without a kind.
struct Subject {
  std::string kind;
  int number = 0;
};

/// A line that the library wrote.
struct Message {
  Subject about;
  std::string text;
};

/// The findings on one subject.
struct Section {
  std::string key;  ///< of `data` in the JSON output
  std::string title;
  std::vector<Line> lines = {};
  Json data = {};
  Subject about = {};                  ///< where all of the section is about one part
  std::vector<Message> messages = {};  ///< failure lines that the library wrote meanwhile
  bool showTrace = false;              ///< its other lines are of interest too
};

/// What a command has found out, for a person and for a program.
class Report {
 public:
  /// @param libraryOutput  where the library's lines arrive meanwhile
  explicit Report(LibraryOutput& libraryOutput) : output(libraryOutput) {}

  /// Gives a section the lines that the library has written since the last call, as lines about a
  /// part.
  void takeMessages(Section& section, const Subject& about);

  /// Adds a section, to which the lines belong that the library has written since the last one.
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
