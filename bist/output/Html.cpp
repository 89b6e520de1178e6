// SPDX-License-Identifier: MIT
#include <algorithm>
#include <cmath>
#include <set>

#include "bist/output/Drawing.h"
#include "bist/output/Output.h"
#include "bist/output/Style.h"
#include "bist/output/Xml.h"

namespace {

std::string textOf(const Json& json) {
  return json.is_string()    ? json.get<std::string>()
         : json.is_boolean() ? (json.get<bool>() ? "yes" : "no")
         : json.is_number()  ? numberText(json.get<double>())
         : json.is_null()    ? "-"
                             : json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

/// "sync yes, errors 0".
std::string wordsOf(const Json& figures) {
  std::vector<std::string> words;
  for (const auto& [key, value] : figures.items()) {
    words.push_back(figures.is_object() ? key + " " + textOf(value) : textOf(value));
  }
  return joined(words);
}

std::string durationText(double seconds) {
  return seconds < 1 ? numberText(std::round(seconds * 1000)) + " ms"
                     : numberText(std::round(seconds * 100) / 100) + " s";
}

void addVerdict(Xml& xml, const std::string& verdict) {
  if (!verdict.empty()) {
    xml.element("b", {{"class", "verdict " + classOf(verdict)}}, verdict);
  }
}

/// Rows of a name and a text.
void addFacts(Xml& xml, const std::vector<std::pair<std::string, std::string>>& facts) {
  const Element table(xml, "table");
  for (const auto& [name, text] : facts) {
    const Element row(xml, "tr");
    xml.element("td", {{"class", "name"}}, name);
    xml.element("td", {}, text);
  }
}

class Page {
 public:
  Page(Xml& document, const Record& results)
      : xml(document), record(results), run(runJson(results)) {}

  void write() {
    xml.documentType("html");
    const Element html(xml, "html", {{"lang", "en"}});
    addHead();
    const Element body(xml, "body");
    addHeader();
    addFailures();
    drawInstrument(xml, record);
    for (const Json& section : record.sections) {
      addSection(section);
    }
    addRun();
  }

 private:
  std::string title() const {
    return "talvero-bist on " + run["host"].get<std::string>() + ", " +
           run["start"].get<std::string>() + ": " + record.verdict();
  }

  void addHead() {
    const Element head(xml, "head");
    xml.empty("meta", {{"charset", "utf-8"}});
    xml.empty("meta", {{"name", "viewport"}, {"content", "width=device-width, initial-scale=1"}});
    xml.element("title", {}, title());
    xml.element("style", {}, pageStyle);
  }

  void addHeader() {
    const Element header(xml, "header");
    const std::string board = run["board"].is_null() ? "BIST" : textOf(run["board"]["description"]);
    xml.element("h1", {}, board);
    addVerdict(xml, record.verdict());
    xml.element("span", {}, record.counts());
    xml.element(
        "p", {},
        textOf(run["host"]) + ", " + textOf(run["start"]) + ", " + durationText(record.seconds));
    if (!record.interrupted.empty()) {
      xml.element("p", {{"class", "fail"}}, "Interrupted: " + record.interrupted);
    }
  }

  /// What has not passed, in words.
  void addFailures() {
    if (record.failures().empty()) {
      return;
    }
    const Element section(xml, "section");
    xml.element("h2", {}, "Not passed");
    const Element list(xml, "ul");
    for (const Json& of : record.sections) {
      for (const Json& line : of["lines"]) {
        if (line["verdict"] == "fail" || line["verdict"] == "not tested") {
          const Element item(xml, "li");
          xml.element("a",
                      {{"href", !isTest(line) ? "#section-" + textOf(of["key"])
                                              : "#" + anchorOf(line["test"])}},
                      textOf(of["title"]) + ", " + textOf(line["label"]));
          xml.text(": " + textOf(line["failure"]));
        }
      }
    }
  }

  void addSection(const Json& section) {
    const Element part(xml, "section", {{"id", "section-" + textOf(section["key"])}});
    xml.element("h2", {}, section["title"]);
    if (!section["lines"].empty()) {
      addLines(section["lines"]);
    }
    if (section.contains("data")) {
      drawPlots(xml, section["data"]);
    }
    addMessages(section["messages"]);
  }

  void addLines(const Json& lines) {
    const bool timed = std::any_of(lines.begin(), lines.end(), isTest);
    const bool judged = std::any_of(lines.begin(), lines.end(), [](const Json& line) {
      return isTest(line) && (!line["figures"].is_null() || !line["limit"].is_null());
    });
    const Element table(xml, "table");
    if (timed) {
      const Element head(xml, "thead");
      const Element row(xml, "tr");
      for (const char* const column : {"Test", "", "Result"}) {
        xml.element("th", {}, column);
      }
      xml.element("th", {{"class", "number"}}, "At");
      xml.element("th", {{"class", "number"}}, "Took");
      if (judged) {
        xml.element("th", {}, "Figures");
        xml.element("th", {}, "Limit");
      }
    }
    const Element body(xml, "tbody");
    for (const Json& line : lines) {
      addLine(line, timed, judged);
    }
  }

  void addLine(const Json& line, bool timed, bool judged) {
    const std::string test = line["test"];
    const bool isPlace = isTest(line) && places.insert(test).second;
    const Element row(xml, "tr",
                      isPlace ? Xml::Attributes{{"id", anchorOf(test)}} : Xml::Attributes{});
    addName(line["label"], test);
    {
      const Element verdict(xml, "td");
      addVerdict(xml, line["verdict"]);
    }
    xml.element("td", {{"class", "text"}}, line["text"]);
    if (timed) {
      for (const char* const key : {"start", "seconds"}) {
        xml.element("td", {{"class", "number"}}, isTest(line) ? durationText(line[key]) : "");
      }
    }
    if (judged) {
      xml.element("td", {{"class", "figures"}}, wordsOf(line["figures"]));
      xml.element("td", {{"class", "figures"}}, wordsOf(line["limit"]));
    }
  }

  void addName(const std::string& label, const std::string& test) {
    const Element name(xml, "td", {{"class", "name"}});
    xml.text(label);
    if (!test.empty()) {
      xml.element("small", {}, test);
    }
  }

  /// The library's words.
  void addMessages(const Json& messages) {
    std::vector<std::pair<std::string, int>> lines;  // and how often each comes
    for (const Json& message : messages) {
      const Json& about = message["about"];
      const std::string part =
          about.empty() ? "" : about.begin().key() + " " + about.begin().value().dump() + ": ";
      const std::string line = part + textOf(message["text"]);
      if (lines.empty() || lines.back().first != line) {
        lines.emplace_back(line, 0);
      }
      ++lines.back().second;
    }
    std::string text;
    for (const auto& [line, times] : lines) {
      text += (text.empty() ? "" : "\n") + line;
      text += times == 1 ? "" : " (" + std::to_string(times) + " times)";
    }
    if (!text.empty()) {
      xml.element("pre", {{"title", "written by the library"}}, text);
    }
  }

  void addRun() {
    const Element section(xml, "section");
    xml.element("h2", {}, "Run");
    const Json& board = run["board"];
    addFacts(xml, {{"tool", run["tool"]},
                   {"library", run["library"]},
                   {"host", run["host"]},
                   {"board", board.is_null() ? "not asked" : wordsOf(board)},
                   {"arguments", wordsOf(run["arguments"])},
                   {"start", run["start"]},
                   {"duration", durationText(record.seconds)},
                   {"interrupted", record.interrupted.empty() ? "no" : record.interrupted},
                   {"verdict", record.verdict() + ": " + record.counts()}});
  }

  Xml& xml;
  const Record& record;
  const Json run;
  std::set<std::string> places;
};

}  // namespace

void HtmlOutput::finish(const Record& record) {
  Xml xml;
  Page(xml, record).write();
  out << xml.document() << "\n";
  requireWritten();
}
