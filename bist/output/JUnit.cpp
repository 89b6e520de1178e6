// SPDX-License-Identifier: MIT
#include <cstdio>

#include "bist/output/Output.h"
#include "bist/output/Xml.h"

namespace {

std::string timeOf(double seconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.3f", seconds);
  return text;
}

std::string textOf(const Json& json) {
  return json.is_string() ? json.get<std::string>()
                          : json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// A line as it stands in the text.
std::string wordsOf(const Json& line) {
  const std::string label = line["label"];
  return label + (label.empty() ? "" : ": ") + line["text"].get<std::string>();
}

/// Whether a line is a test's result, and no mere statement.
bool isResult(const Json& line) {
  return isTest(line) && !line["verdict"].get_ref<const std::string&>().empty();
}

/// What a suite counts.
struct Counts {
  int tests = 0;
  int failures = 0;
  int errors = 0;
  int skipped = 0;
  double begin = 0;
  double seconds = 0;

  void add(const Json& line) {
    if (isResult(line)) {
      const double start = line["start"];
      begin = tests == 0 ? start : begin;
      seconds = start + line["seconds"].get<double>() - begin;
      ++tests;
      failures += line["verdict"] == "fail" ? 1 : 0;
      errors += line["verdict"] == "not tested" ? 1 : 0;
      skipped += line["verdict"] == "skipped" ? 1 : 0;
    }
  }

  Xml::Attributes attributes() const {
    return {{"tests", std::to_string(tests)},
            {"failures", std::to_string(failures)},
            {"errors", std::to_string(errors)},
            {"time", timeOf(seconds)}};
  }
};

Xml::Attributes joined(Xml::Attributes attributes, const Xml::Attributes& more) {
  attributes.insert(attributes.end(), more.begin(), more.end());
  return attributes;
}

void addProperties(Xml& xml, const Json& run) {
  const Element properties(xml, "properties");
  for (const char* const key : {"tool", "library", "host", "board", "arguments"}) {
    xml.empty("property", {{"name", key}, {"value", textOf(run[key])}});
  }
}

/// How a verdict that is no pass is told.
void addVerdict(Xml& xml, const Json& line) {
  constexpr struct {
    const char* verdict;
    const char* element;
  } elements[] = {{"fail", "failure"}, {"not tested", "error"}, {"skipped", "skipped"}};
  for (const auto& [verdict, element] : elements) {
    if (line["verdict"] == verdict) {
      Xml::Attributes attributes{{"message", line["failure"]}};
      if (line["verdict"] != "skipped") {
        attributes.emplace_back("type", verdict);
      }
      xml.empty(element, attributes);
    }
  }
}

void addCase(Xml& xml, const Json& line, const std::string& key) {
  const Element test(xml, "testcase",
                     {{"name", line["test"]},
                      {"classname", "talvero-bist." + key},
                      {"time", timeOf(line["seconds"])}});
  addVerdict(xml, line);
  std::string text = wordsOf(line);
  for (const char* const name : {"figures", "limit"}) {
    text += line[name].is_null() ? "" : std::string("\n") + name + ": " + textOf(line[name]);
  }
  xml.element("system-out", {}, text);
}

void addText(Xml& xml, const char* element, const std::string& text) {
  if (!text.empty()) {
    xml.element(element, {}, text);
  }
}

void addSuite(Xml& xml, const Json& section, const Json& run) {
  Counts counts;
  std::string others;  // lines that are no tests
  std::string messages;
  for (const Json& line : section["lines"]) {
    counts.add(line);
    others += isResult(line) ? "" : wordsOf(line) + "\n";
  }
  for (const Json& message : section["messages"]) {
    messages += message["text"].get<std::string>() + "\n";
  }
  const std::string start = run["start"];
  const Element suite(
      xml, "testsuite",
      joined({{"name", section["title"]}},
             joined(counts.attributes(), {{"skipped", std::to_string(counts.skipped)},
                                          {"timestamp", start.substr(0, 19)},
                                          {"hostname", run["host"]}})));
  addProperties(xml, run);
  for (const Json& line : section["lines"]) {
    if (isResult(line)) {
      addCase(xml, line, section["key"]);
    }
  }
  addText(xml, "system-out", others);
  addText(xml, "system-err", messages);
}

/// An interruption as a section of its own: a run that did not come to its end is no success.
Json interruption(const Record& record) {
  const std::string text = "interrupted: " + record.interrupted;
  return {{"key", "run"},
          {"title", "Run"},
          {"lines", Json::array({{{"label", "run"},
                                  {"text", text},
                                  {"failure", text},
                                  {"verdict", "not tested"},
                                  {"test", "run.complete"},
                                  {"start", record.seconds},
                                  {"seconds", 0.0},
                                  {"figures", nullptr},
                                  {"limit", nullptr}}})},
          {"messages", Json::array()}};
}

}  // namespace

void JUnitOutput::finish(const Record& record) {
  std::vector<Json> sections = record.sections;
  if (!record.interrupted.empty()) {
    sections.push_back(interruption(record));
  }
  Counts all;
  for (const Json& section : sections) {
    for (const Json& line : section["lines"]) {
      all.add(line);
    }
  }
  all.seconds = record.seconds;
  Xml xml;
  xml.declaration("xml version=\"1.0\" encoding=\"UTF-8\"");
  const Json run = runJson(record);
  {
    const Element suites(xml, "testsuites", joined({{"name", "talvero-bist"}}, all.attributes()));
    for (const Json& section : sections) {
      addSuite(xml, section, run);
    }
  }
  out << xml.document();
  requireWritten();
}
