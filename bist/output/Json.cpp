// SPDX-License-Identifier: MIT
#include <unistd.h>

#include <stdexcept>

#include "TalveroHwLibVersion.h"
#include "bist/output/Output.h"

namespace {

// Another one when a key changes its meaning or goes.
constexpr int format = 1;

Json messageJson(const Json& message, const Json& section) {
  Json json = {{"section", section["key"]}};
  json.update(message["about"]);
  json["text"] = message["text"];
  return json;
}

std::string hostName() {
  char name[256] = "";
  gethostname(name, sizeof name - 1);
  return name;
}

/// The lines that are the results of tests.
Json testsOf(const Record& record) {
  Json tests = Json::array();
  for (const Json& section : record.sections) {
    for (const Json& line : section["lines"]) {
      if (isTest(line)) {
        tests.push_back({{"name", line["test"]},
                         {"verdict", line["verdict"]},
                         {"text", line["failure"]},
                         {"start", line["start"]},
                         {"seconds", line["seconds"]},
                         {"figures", line["figures"]},
                         {"limit", line["limit"]}});
      }
    }
  }
  return tests;
}

}  // namespace

Json runJson(const Record& record) {
  return {{"tool", "talvero-bist " TALVERO_VERSION},
          {"library", TALVERO_HW_LIB_VERSION},
          {"host", hostName()},
          {"board", record.facts.board},
          {"arguments", record.facts.arguments},
          {"start", timeText(record.facts.start)},
          {"seconds", record.seconds},
          {"interrupted", record.interrupted.empty() ? Json(nullptr) : Json(record.interrupted)},
          {"passed", record.count("pass")},
          {"failed", record.count("fail")},
          {"skipped", record.count("skipped")},
          {"notTested", record.count("not tested")}};
}

void JsonOutput::finish(const Record& record) {
  Json all;
  Json messages = Json::array();
  for (const Json& section : record.sections) {
    all[section["key"].get<std::string>()] = section.value("data", Json());
    for (const Json& message : section["messages"]) {
      messages.push_back(messageJson(message, section));
    }
  }
  all["messages"] = messages;
  all["failures"] = record.failures();
  all["verdict"] = record.verdict();
  all["format"] = format;
  all["run"] = runJson(record);
  all["tests"] = testsOf(record);
  // Attribute texts come from files: bytes that are no UTF-8 must not end the program.
  out << all.dump(2, ' ', false, Json::error_handler_t::replace) << "\n";
  if (!out.flush()) {
    throw std::runtime_error("standard output cannot be written");
  }
}
