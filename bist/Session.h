// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <ostream>
#include <string>
#include <vector>

#include "bist/Report.h"
#include "bist/output/Output.h"

/// All that one call of the program finds, whatever process finds it: takes the events, hands them
/// to the outputs as they come, and decides on the verdict.
///
/// Events, by "event":
///   "section"         begins one: key, title, about (a part by its kind), labelWidth, textWidth
///   "line"            in it: label, text, verdict, failure, test, seconds, figures, limit, and
///                     kept, whether it stays in the record
///   "message"         of the library, in it: about, text
///   "end of section"  data
///   "so far"          events, which come at the end of the run if that is in this section
///   "result"          of a test in a cycle of a soak, as a line, which is not in the record
///   "progress"        what goes on now: title, and seconds if it is known how long
///   "switch"          undo: how to undo what is switched now
///   "switched back"   the last one of these is undone
///   "not put back"    the last one of these could not be: why
///   "trace"           text: a line that the library writes, for an output that wants those
///   "interrupted"     by what
class Session {
 public:
  explicit Session(const RunFacts& facts) { record.facts = facts; }

  /// Outputs are written in the order in which they are added. They are the caller's.
  void addOutput(Output& output) { outputs.push_back(&output); }

  void take(const Json& event);

  /// What has been switched and is not undone, in the order in which it was switched.
  std::vector<Json> switched() const { return undos; }

  /// Notes that the run ends here, by a signal such as "SIGINT" or for another reason.
  void interrupt(const std::string& reason);

  /// Ends all outputs. Throws what the first one that fails has thrown, unless nobody reads them.
  /// Returns whether everything passed.
  bool finish(bool unread = false);

  /// Ends the records where an error ends the run: what has been found until then is not lost.
  void abandon(const std::string& error);

  const Record& results() const { return record; }

 private:
  Record record;
  std::vector<Output*> outputs;
  std::vector<Json> undos;
  Json ending = Json::array();
};
