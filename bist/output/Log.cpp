// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cstdio>
#include <iomanip>

#include "bist/Undo.h"
#include "bist/output/Output.h"
#include "bist/output/Xml.h"

namespace {

std::string compact(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// The time now, to the millisecond.
std::string now() {
  using std::chrono::milliseconds;
  const auto time = std::chrono::system_clock::now();
  const auto since = std::chrono::duration_cast<milliseconds>(time.time_since_epoch());
  char fraction[8];
  std::snprintf(fraction, sizeof fraction, ".%03dZ", static_cast<int>(since.count() % 1000));
  return timeText(time).erase(19) + fraction;
}

}  // namespace

LogOutput::LogOutput(const std::string& fileName, const RunFacts& facts) : FileOutput(fileName) {
  Record record;
  record.facts = facts;
  const Json run = runJson(record);
  for (const char* const key : {"tool", "library", "host", "board", "arguments"}) {
    log("run", std::string(key) + " " + compact(run[key]));
  }
  requireWritten();
}

/// A line that cannot be written is a matter of the end: it does not keep the test from going on.
void LogOutput::log(const char* kind, const std::string& text) {
  std::string line = validText(text);
  std::replace(line.begin(), line.end(), '\n', ' ');
  out << now() << "  " << std::left << std::setw(12) << kind << line << std::endl;
}

void LogOutput::logLine(const Json& line) {
  const std::string verdict = line["verdict"];
  std::string text = line["label"].get<std::string>() + ": " + line["text"].get<std::string>();
  for (const char* const key : {"test", "seconds", "figures", "limit"}) {
    text += !isTest(line) || line[key].is_null()
                ? ""
                : std::string("  ") + key + " " + compact(line[key]);
  }
  log(verdict.empty() ? "line" : verdict.c_str(), text);
}

void LogOutput::take(const Json& event) {
  const std::string kind = event["event"];
  if (kind == "section") {
    log("section", event["title"]);
  } else if (kind == "line" || kind == "result") {
    logLine(event);
  } else if (kind == "end of section") {
    log("data", compact(event["data"]));
  } else if (kind == "trace") {
    log("library", event["text"]);
  } else if (kind == "progress") {
    const int seconds = event["seconds"];
    log("progress", event["title"].get<std::string>() +
                        (seconds == 0 ? "" : ", " + std::to_string(seconds) + " s"));
  } else if (kind == "switch") {
    switched.push_back(wordsOf(event["undo"]));
    log("switch", "to be put back: " + switched.back() + " " + compact(event["undo"]));
  } else if (kind == "switched back" || kind == "not put back") {
    const std::string why = event.value("why", "");
    log(why.empty() ? "put back" : "trouble",
        switched.back() + (why.empty() ? "" : " is not put back: " + why));
    switched.pop_back();
  } else if (kind == "interrupted") {
    log("interrupted", event["by"]);
  }
}

void LogOutput::finish(const Record& record) {
  log("end", record.verdict() + ": " + record.counts());
  requireWritten();
}
