// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "bist/LibraryOutput.h"

using Json = nlohmann::ordered_json;

/// What a test has found. A test is skipped for a good reason; one that should have been made and
/// could not be is not tested. None is for a line that says something and is no test's result.
enum class Verdict { pass, fail, skipped, notTested, none };

Verdict passIf(bool good);

/// "135, 171" of {"135", "171"}.
std::string joined(const std::vector<std::string>& words);

/// One statement about the instrument. Its words are those of the command that makes it.
struct Line {
  std::string label;
  std::string text;
  Verdict verdict = Verdict::none;
  std::string failure = {};  ///< what has failed, where the text is a row of a table
  std::string test = {};     ///< name of the test whose result it is, the same for years
  Json figures = {};         ///< what it is judged by
  Json limit = {};           ///< and against what
};

/// A part of the instrument by its number, such as {"slot", 1}; no part without a kind.
struct Subject {
  std::string kind;
  int number = 0;
};

/// The findings on one subject.
struct Section {
  std::string key;  ///< of `data` in the JSON output
  std::string title;
  std::vector<Line> lines = {};
  Json data = {};
  Subject about = {};      ///< where all of the section is about one part
  bool showTrace = false;  ///< the library's other lines are of interest too
};

/// Takes what happens, as it happens. Each event is one object with a key "event"; Session.h says
/// which there are.
using Events = std::function<void(const Json& event)>;

/// What a command tells while it tests.
class Report {
 public:
  /// @param libraryOutput  where the library's lines arrive meanwhile
  Report(LibraryOutput& libraryOutput, Events takeEvents)
      : output(libraryOutput), events(std::move(takeEvents)) {}

  /// Begins a section; its lines follow one by one. The widths are those of its columns.
  void begin(const Section& section, std::size_t labelWidth, std::size_t textWidth);

  /// Adds a line to the section that has begun, with the lines that the library has written, as
  /// lines about a part.
  void line(const Line& line, const Subject& about);

  /// Takes what the library has written as lines about a part, for the section that has begun or
  /// comes next.
  void takeMessages(const Subject& about);

  /// Ends the section that has begun.
  void end(const Json& data);

  /// Adds a whole section, all of whose lines are there.
  void add(const Section& section);

  /// Says what goes on now and, if that is known, for how many seconds; 0 if not.
  void progress(const std::string& title, unsigned int seconds = 0);

  /// Says how to undo what is to be switched now, before it is. What is undone by itself is taken
  /// back, the last one first.
  void willSwitch(const Json& undo);
  void switchedBack();

 private:
  void tell(const Line& line);
  void tellMessages();

  LibraryOutput& output;
  Events events;
  Section current;
  std::vector<Json> messages;  ///< events that the next line or the end of the section brings
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};
