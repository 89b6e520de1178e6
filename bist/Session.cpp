// SPDX-License-Identifier: MIT
#include "bist/Session.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace {

double secondsSince(std::chrono::system_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::system_clock::now() - start).count();
}

}  // namespace

void Session::take(const Json& event) {
  const std::string kind = event["event"];
  if (kind == "section") {
    record.sections.push_back(event);
    record.sections.back()["lines"] = Json::array();
    record.sections.back()["messages"] = Json::array();
  } else if (kind == "line" && event["kept"]) {
    Json line = event;
    const double duration = event["seconds"];
    line["start"] = secondsSince(record.facts.start) - duration;
    record.sections.back()["lines"].push_back(line);
  } else if (kind == "message") {
    record.sections.back()["messages"].push_back(event);
  } else if (kind == "end of section") {
    record.sections.back()["data"] = event["data"];
    ending.clear();
  } else if (kind == "so far") {
    ending = event["events"];
  } else if (kind == "switch") {
    undos.push_back(event["undo"]);
  } else if (kind == "switched back" || kind == "not put back") {
    undos.pop_back();
  }
  for (Output* const output : outputs) {
    output->take(event);
  }
}

void Session::interrupt(const std::string& reason) {
  record.interrupted = reason;
  take({{"event", "interrupted"}, {"by", reason}});
}

bool Session::finish(bool unread) {
  record.seconds = secondsSince(record.facts.start);
  try {
    for (const Json& event : Json(std::exchange(ending, Json::array()))) {
      take(event);
    }
  } catch (const std::exception&) {
    if (!unread) {
      throw;
    }
  }
  std::exception_ptr failure;
  for (Output* const output : outputs) {
    try {
      output->finish(record);
    } catch (const std::exception&) {
      failure = failure != nullptr ? failure : std::current_exception();
    }
  }
  if (failure != nullptr && !unread) {
    std::rethrow_exception(failure);
  }
  return record.interrupted.empty() && record.verdict() == "pass";
}

void Session::abandon(const std::string& error) {
  interrupt(error);
  outputs.erase(std::remove_if(outputs.begin(), outputs.end(),
                               [](const Output* output) { return !output->isRecord(); }),
                outputs.end());
  finish(true);
}
