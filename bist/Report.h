// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
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
  bool kept = true;          ///< or else it is shown as it comes, and is not among the results
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

  /// Takes what the library has written but for lines that begin with one of these, which the
  /// results say already, and lines that it has taken since the section began.
  void takeOtherMessages(const Subject& about, const std::vector<std::string>& known);

  /// Says how the section ends if nothing more comes, because the run ends or is interrupted: in
  /// place of what the call before has said.
  void soFar(const std::vector<Line>& lines, const Json& data);

  /// Ends the section that has begun.
  void end(const Json& data);

  /// Adds a whole section, all of whose lines are there.
  void add(const Section& section);

  /// Whether a line so far says that something failed or was not tested.
  bool hasFailed() const { return failed; }

  /// Says what goes on now and, if that is known, for how many seconds; 0 if not.
  void progress(const std::string& title, unsigned int seconds = 0);

  /// Says how to undo what is to be switched now, before it is. What is undone by itself is taken
  /// back, the last one first.
  void willSwitch(const Json& undo);
  void switchedBack();

  /// A report of the same library's lines, whose events something else takes.
  Report redirected(Events takeEvents) const { return {output, std::move(takeEvents)}; }

  /// Passes an event of such a report on.
  void pass(const Json& event) { events(event); }

 private:
  Json eventOf(const Line& line) const;
  void note(const Line& line);
  void tellMessages();

  LibraryOutput& output;
  Events events;
  bool failed = false;
  Section current;
  std::vector<Json> messages;    ///< events that the next line or the end of the section brings
  std::set<std::string> others;  ///< that takeOtherMessages has taken
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};
