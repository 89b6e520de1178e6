// SPDX-License-Identifier: MIT
#include <ctime>

#include "bist/output/Output.h"

bool isTest(const Json& line) { return !line["test"].get_ref<const std::string&>().empty(); }

std::size_t Record::count(const std::string& verdict) const {
  std::size_t number = 0;
  for (const Json& section : sections) {
    for (const Json& line : section["lines"]) {
      number += line["verdict"] == verdict ? 1 : 0;
    }
  }
  return number;
}

std::vector<std::string> Record::failures() const {
  std::vector<std::string> result;
  for (const Json& section : sections) {
    for (const Json& line : section["lines"]) {
      if (line["verdict"] == "fail" || line["verdict"] == "not tested") {
        result.push_back(section["title"].get<std::string>() + ", " +
                         line["label"].get<std::string>() + ": " +
                         line["failure"].get<std::string>());
      }
    }
  }
  return result;
}

std::string Record::verdict() const {
  if (count("fail") != 0) {
    return "fail";
  }
  const bool complete =
      interrupted.empty() && count("not tested") == 0 && (facts.informs || count("pass") != 0);
  return complete ? "pass" : "not tested";
}

std::string Record::counts() const {
  return countsText([this](const char* verdict) { return count(verdict); });
}

std::string countsText(const std::function<std::size_t(const char* verdict)>& count) {
  constexpr struct {
    const char* verdict;
    const char* word;
  } words[] = {
      {"fail", "failed"}, {"not tested", "not tested"}, {"pass", "passed"}, {"skipped", "skipped"}};
  std::string text;
  for (const auto& [verdict, word] : words) {
    const std::size_t number = count(verdict);
    if (number != 0) {
      text += (text.empty() ? "" : ", ") + std::to_string(number) + " " + word;
    }
  }
  return text.empty() ? "nothing tested" : text;
}

std::string timeText(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm parts{};
  gmtime_r(&seconds, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
  return text;
}
