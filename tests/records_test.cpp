// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>
#include <tinyxml2.h>

#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <sstream>

#include "bist/output/Drawing.h"
#include "tests/Support.h"

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using tinyxml2::XMLElement;

namespace {

using Names = std::set<std::string>;

/// What CI systems take of an element of JUnit XML.
struct Rule {
  Names needed;   ///< attributes
  Names allowed;  ///< more of them
  Names below;    ///< elements
};

const std::map<std::string, Rule> junitRules = {
    {"testsuites", {{"name", "tests", "failures", "errors", "time"}, {}, {"testsuite"}}},
    {"testsuite",
     {{"name", "tests", "failures", "errors", "skipped", "time", "timestamp", "hostname"},
      {},
      {"properties", "testcase", "system-out", "system-err"}}},
    {"properties", {{}, {}, {"property"}}},
    {"property", {{"name", "value"}, {}, {}}},
    {"testcase",
     {{"name", "classname", "time"}, {}, {"failure", "error", "skipped", "system-out"}}},
    {"failure", {{"message", "type"}, {}, {}}},
    {"error", {{"message", "type"}, {}, {}}},
    {"skipped", {{"message"}, {}, {}}},
    {"system-out", {}},
    {"system-err", {}}};

/// Calls it with an element and all below it.
template <class Function>
void forEach(const XMLElement& element, const Function& function) {
  function(element);
  for (const XMLElement* below = element.FirstChildElement(); below != nullptr;
       below = below->NextSiblingElement()) {
    forEach(*below, function);
  }
}

void checkRules(const XMLElement& root) {
  forEach(root, [](const XMLElement& element) {
    const auto rule = junitRules.find(element.Name());
    ASSERT_NE(rule, junitRules.end()) << element.Name();
    Names attributes;
    for (const auto* attribute = element.FirstAttribute(); attribute != nullptr;
         attribute = attribute->Next()) {
      attributes.insert(attribute->Name());
    }
    EXPECT_EQ(attributes, rule->second.needed) << element.Name();
    for (const XMLElement* below = element.FirstChildElement(); below != nullptr;
         below = below->NextSiblingElement()) {
      EXPECT_EQ(rule->second.below.count(below->Name()), 1) << below->Name();
    }
  });
}

int number(const XMLElement& root, const char* name) {
  int count = 0;
  forEach(root,
          [&](const XMLElement& element) { count += std::strcmp(element.Name(), name) == 0; });
  return count;
}

class Records : public testing::Test {
 protected:
  /// Runs a shell script, in which "bist" is the program and "start" becomes it.
  Outcome run(const std::string& instrument, const std::string& script) const {
    return runCommand("cd " + directory.path + " && " TALVERO_SIM " --fast --instrument " +
                      instrument +
                      " -- bash -c 'bist() { " TALVERO_BIST
                      " \"$@\"; }; start() { exec " TALVERO_BIST " \"$@\"; }; " +
                      script + "'");
  }

  std::string file(const std::string& name) const { return contentOf(directory.path + "/" + name); }

  /// Parses a file, which has to be well-formed.
  const XMLElement& parsed(const std::string& name) {
    if (document.Parse(file(name).c_str()) != tinyxml2::XML_SUCCESS) {
      throw std::runtime_error(name + ": " + document.ErrorStr());
    }
    return *document.RootElement();
  }

  /// The kinds of a log's lines, those that follow each other once.
  std::vector<std::string> kinds(const std::string& name) const {
    std::istringstream log(file(name));
    std::vector<std::string> result;
    for (std::string line; std::getline(log, line);) {
      std::smatch match;
      const std::regex form("\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z  (.{12}).*");
      EXPECT_TRUE(std::regex_match(line, match, form)) << line;
      const std::string kind = match.str(1).substr(0, match.str(1).find_last_not_of(' ') + 1);
      if (result.empty() || result.back() != kind) {
        result.push_back(kind);
      }
    }
    return result;
  }

  TemporaryDirectory directory;
  tinyxml2::XMLDocument document;
};

TEST_F(Records, AreForCiSystems) {
  for (const char* const instrument : {"full", "broken", "mmb"}) {
    const Outcome outcome = run(instrument, "bist report --power-cycle --json --junit results.xml");
    const json report = json::parse(outcome.output);
    const XMLElement& root = parsed("results.xml");
    checkRules(root);
    EXPECT_EQ(number(root, "failure"), report["run"]["failed"]);
    EXPECT_EQ(root.IntAttribute("failures"), report["run"]["failed"]);
    EXPECT_EQ(number(root, "skipped"), report["run"]["skipped"]);
    EXPECT_EQ(number(root, "error"), report["run"]["notTested"]);
    EXPECT_EQ(root.IntAttribute("errors"), report["run"]["notTested"]);
    EXPECT_EQ(number(root, "testcase"), root.IntAttribute("tests"));
    EXPECT_EQ(number(root, "testcase") - number(root, "failure") - number(root, "skipped") -
                  number(root, "error"),
              report["run"]["passed"]);
    EXPECT_EQ(number(root, "system-err") > 0, !report["messages"].empty());
  }
}

TEST_F(Records, HaveEveryByteAsText) {
  const std::string name = "a\xFF\x01<&>.xml";
  const std::string replaced = "a\xEF\xBF\xBD\xEF\xBF\xBD<&>.xml";
  run("full",
      "bist power 2 off --junit \"$(printf \"a\\xff\\x01<&>.xml\")\" --html page.html --log log");
  bool found = false;
  forEach(parsed(name), [&](const XMLElement& element) {
    const char* const value = element.Attribute("value");
    found =
        found || (value != nullptr && std::strstr(value, "a\xEF\xBF\xBD\\u0001<&>.xml") != nullptr);
  });
  EXPECT_TRUE(found);
  parsed("page.html");
  EXPECT_THAT(file("page.html"), HasSubstr("a\xEF\xBF\xBD\xEF\xBF\xBD&lt;&amp;&gt;.xml"));
  EXPECT_EQ(validText(name), replaced);
  EXPECT_EQ(validText("\xEF\xBF\xBF\xC3\xA9\xED\xA0\x80\n").substr(0, 5), "\xEF\xBF\xBD\xC3\xA9");
}

TEST_F(Records, LeadFromThePartToItsResults) {
  const struct {
    const char* instrument;
    const char* call;
  } cases[] = {{"full", "report --power-cycle"},
               {"broken", "report --power-cycle"},
               {"mmb", "report"},
               {"full", "shim 1"},
               {"full", "topology 1"},
               {"broken", "errors DownstreamPort7"},
               {"full", "link 4 --module 3"},
               {"full", "capture c.conf"}};
  for (const auto& [instrument, call] : cases) {
    const json report =
        json::parse(run(instrument, std::string("bist --json --html page.html ") + call).output);
    const XMLElement& page = parsed("page.html");
    Names places;
    Names links;
    forEach(page, [&](const XMLElement& element) {
      EXPECT_STRNE(element.Name(), "script");
      for (const char* const attribute : {"src", "onload", "onclick"}) {
        EXPECT_EQ(element.Attribute(attribute), nullptr);
      }
      if (const char* const id = element.Attribute("id"); id != nullptr) {
        EXPECT_TRUE(places.insert(std::string("#") + id).second) << id;
      }
      if (const char* const link = element.Attribute("href"); link != nullptr) {
        links.insert(link);
      }
    });
    EXPECT_THAT(places, testing::IsSupersetOf(links)) << call;
    for (const json& test : report["tests"]) {
      EXPECT_EQ(places.count("#test-" + test["name"].get<std::string>()), 1) << test;
    }
    EXPECT_THAT(file("page.html"), AllOf(Not(HasSubstr("http")), Not(HasSubstr("url("))));
  }
  run("broken", "bist report --html page.html");
  EXPECT_THAT(file("page.html"),
              AllOf(HasSubstr("<a class=\"part fail\" href=\"#test-slot2.controller\">"),
                    HasSubstr("<a class=\"inner skipped\" href=\"#test-DownstreamPort9.link\">"),
                    HasSubstr("expander 30-0041"), HasSubstr("could not enumerate module: 1 (7 ")));
  run("full",
      "echo {\\\"modules\\\":{\\\"3\\\":false}} >e; "
      "bist report --slots 3 --tests slots --expect e --html page.html");
  EXPECT_THAT(file("page.html"),
              AllOf(HasSubstr("<title>Slot 3: fail, there, expected none</title>"),
                    HasSubstr(">present, link up<"), Not(HasSubstr("<title>Slot 0: "))));
  EXPECT_EQ(file("page.html").find(">present, link up<"),
            file("page.html").rfind(">present, link up<"))
      << "of one slot";
}

TEST_F(Records, DrawPlots) {
  Xml xml;
  xml.begin("body");
  drawPlots(xml, Json::parse(R"([{
      "name": "DownstreamPort1",
      "series": [{"name": "a", "x": "s", "y": "errors", "points": [[0, 0], [5, 10]]},
                 {"name": "b", "x": "s", "y": "errors", "points": [[1, 1], [2, null], [3, 3]]},
                 {"name": "c", "x": "s", "y": "GT/s", "points": []}]},
      {"map": {"rows": "drive level", "columns": "post-cursor", "rowValues": [0, 1],
               "columnValues": [0, 1, 2], "counts": [[0, 255, null], [1, 0, 0]],
               "centre": [1, 2]}},
      {"name": "many", "series": [
          {"x": "n", "y": "m", "points": [[0, 0]]}, {"x": "n", "y": "m", "points": [[0, 1]]},
          {"x": "n", "y": "m", "points": [[0, 2]]}, {"x": "n", "y": "m", "points": [[0, 3]]},
          {"x": "n", "y": "m", "points": [[0, 4]]}, {"x": "n", "y": "m", "points": [[0, 5]]},
          {"x": "n", "y": "m", "points": [[0, 6]]}]}])"));
  xml.end();
  const std::string drawn = xml.document();
  ASSERT_EQ(document.Parse(drawn.c_str()), tinyxml2::XML_SUCCESS);
  EXPECT_EQ(number(*document.RootElement(), "svg"), 4) << "a plot for each pair of axes, the map";
  EXPECT_THAT(drawn,
              AllOf(HasSubstr("d=\"M70 250L740 30\""), HasSubstr("class=\"curve s1\" d=\"M204"),
                    HasSubstr("class=\"cell unknown\""), HasSubstr("class=\"centre\" x=\"156\""),
                    HasSubstr("curve s5\""), HasSubstr("curve s0 again\""), HasSubstr(">255<"),
                    Not(HasSubstr("nan")), Not(HasSubstr("inf"))));
}

TEST_F(Records, LogEverythingAsItHappens) {
  run("full", "bist prbs 0 --seconds 2 --log log --trace trace");
  EXPECT_THAT(kinds("log"), ElementsAre("run", "section", "progress", "switch", "library",
                                        "put back", "pass", "data", "end"));
  std::istringstream trace(file("trace"));
  const std::string log = file("log");
  std::size_t at = 0;
  for (std::string line; std::getline(trace, line);) {
    at = log.find("library     " + line + "\n", at + 1);
    ASSERT_NE(at, std::string::npos) << line;
  }
}

TEST_F(Records, SayWhatEndedTheRun) {
  run("full",
      "start prbs 0 --seconds 60 --log log --junit j.xml --html page.html >out & sleep 5; "
      "kill $!; wait $!");
  const std::vector<std::string> interrupted = kinds("log");
  EXPECT_THAT(std::vector<std::string>(interrupted.end() - 3, interrupted.end()),
              ElementsAre("library", "put back", "end"));
  EXPECT_THAT(file("log"), HasSubstr("interrupted SIGTERM\n"));
  EXPECT_THAT(file("page.html"), HasSubstr("Interrupted: SIGTERM"));
  checkRules(parsed("j.xml"));
  EXPECT_THAT(file("j.xml"), HasSubstr("<error message=\"interrupted: SIGTERM\""));

  run("full", "start prbs 0 --seconds 60 --log log >out & sleep 5; kill -KILL $!; wait $!");
  EXPECT_EQ(kinds("log").back(), "library") << "a crash loses nothing";

  EXPECT_EQ(run("full", "bist tx 0 --drive-level 3 --trace /dev/full --junit j.xml").status, 2);
  EXPECT_THAT(file("j.xml"), AllOf(HasSubstr("interrupted: /dev/full: cannot be written"),
                                   HasSubstr("DownstreamPort1.tx-drive-level")));
}

TEST_F(Records, AreRefusedOrMissedInWords) {
  for (const char* const option : {"--log", "--junit", "--html"}) {
    const Outcome none = run("full", std::string("bist board ") + option + " /nowhere/x");
    EXPECT_EQ(none.status, 2);
    EXPECT_EQ(none.output, "") << "known before the test";
    EXPECT_EQ(none.errors, "talvero-bist: /nowhere/x: cannot be written\n");
    const Outcome same = run("full", std::string("bist board --trace x ") + option + " x");
    EXPECT_EQ(same.errors,
              std::string("talvero-bist: x: named by both --trace and ") + option + "\n");
  }
  const Outcome full = run("full", "bist board --junit /dev/full --html page.html --log log");
  EXPECT_EQ(full.status, 2);
  EXPECT_EQ(full.errors, "talvero-bist: /dev/full: cannot be written\n");
  EXPECT_THAT(full.output, HasSubstr("PASS: 2 passed"));
  parsed("page.html");
  EXPECT_EQ(kinds("log").back(), "end");
}

}  // namespace
