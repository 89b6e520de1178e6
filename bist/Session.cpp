// SPDX-License-Identifier: MIT
#include "bist/Session.h"

namespace {

double secondsSince(std::chrono::system_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::system_clock::now() - start).count();
}

}  // namespace

void Session::take(const Json& event) {
  const std::string kind = event["event"];
  Json* const section = record.sections.empty() ? nullptr : &record.sections.back();
  if (kind == "section") {
    record.sections.push_back(event);
    record.sections.back()["lines"] = Json::array();
    record.sections.back()["messages"] = Json::array();
  } else if (kind == "line") {
    Json line = event;
    const double duration = event["seconds"];
    line["start"] = secondsSince(record.facts.start) - duration;
    (*section)["lines"].push_back(line);
  } else if (kind == "message") {
    (*section)["messages"].push_back(event);
  } else if (kind == "end of section") {
    (*section)["data"] = event["data"];
  } else if (kind == "switch") {
    undos.push_back(event["undo"]);
  } else if (kind == "switched back") {
    undos.pop_back();
  }
  for (Output* const output : outputs) {
    output->take(event);
  }
}

void Session::interrupt(const std::string& reason) { record.interrupted = reason; }

bool Session::finish(bool unread) {
  record.seconds = secondsSince(record.facts.start);
  for (Output* const output : outputs) {
    try {
      output->finish(record);
    } catch (const std::exception&) {
      if (!unread) {
        throw;
      }
    }
  }
  return record.interrupted.empty() && record.verdict() == "pass";
}
