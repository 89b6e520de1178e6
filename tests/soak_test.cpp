// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "tests/Support.h"

using nlohmann::json;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr char ports[] =
    ",DownstreamPort1.link,DownstreamPort1.link.status,DownstreamPort1.errors,"
    "DownstreamPort1.errors.errors,DownstreamPort1.prbs,DownstreamPort1.prbs.seconds,"
    "DownstreamPort1.prbs.errors,DownstreamPort1.prbs.bits";

class Soak : public testing::Test {
 protected:
  TemporaryDirectory directory;
  std::string description = directory.file("d.conf", contentOf(INSTRUMENTS "/full.conf"));

  /// Runs a shell script, in which "soak" is the command, on the instrument.
  Outcome run(const std::string& script) const {
    return runCommand("cd " + directory.path +
                      " && " TALVERO_SIM " --fast --summary --instrument " + description +
                      " -- sh -c 'soak() { " TALVERO_BIST
                      " soak \"$@\"; }; start() { exec " TALVERO_BIST " soak \"$@\"; }; " +
                      script + "'");
  }

  void describe(const std::string& more) {
    directory.file("d.conf", contentOf(INSTRUMENTS "/full.conf") + more);
  }

  std::string content(const char* file = "talvero-soak.csv") const {
    return contentOf(directory.path + "/" + file);
  }

  /// The lines of the CSV file, each by its fields.
  std::vector<std::vector<std::string>> rows(const char* file = "talvero-soak.csv") const {
    std::istringstream text(content(file));
    std::vector<std::vector<std::string>> all;
    for (std::string line; std::getline(text, line);) {
      all.emplace_back();
      std::istringstream fields(line + ",");
      for (std::string field; std::getline(fields, field, ',');) {
        all.back().push_back(field);
      }
    }
    return all;
  }

  /// Makes a file of cycles in which only the first port says something, whatever follows "time".
  std::string csv(const std::vector<std::string>& cycles) const {
    static std::string header;
    if (header.empty()) {
      run("soak --cycles 0 --csv empty.csv; true");
      header = content("empty.csv");
    }
    const auto columns = std::count(header.begin(), header.end(), ',') + 1;
    std::string text = header;
    int number = 0;
    for (const std::string& cycle : cycles) {
      const auto commas = std::count(cycle.begin(), cycle.end(), ',');
      text += std::to_string(++number) + ",2026-11-26T00:00:00Z," + cycle +
              std::string(static_cast<std::size_t>(columns - 3 - commas), ',') + "\n";
    }
    return text;
  }
};

TEST_F(Soak, EndsAfterItsCycles) {
  const Outcome outcome = run("soak --cycles 3 --seconds 60 --minutes 1000");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.errors, "talvero-sim: nothing left behind\n");
  EXPECT_THAT(outcome.output,
              StartsWith("Soak\n  cycle 1                 12 passed\n"
                         "  cycle 2                 12 passed\n"
                         "  cycle 3                 12 passed\n"
                         "  DownstreamPort1.link    3 runs, 0 failed  PASS\n"
                         "  DownstreamPort1.errors  3 runs, 0 failed; errors 0  PASS\n"
                         "  DownstreamPort1.prbs    3 runs, 0 failed; errors 0; 9e+11 bits, "));
  EXPECT_THAT(outcome.output,
              HasSubstr("; errors 0; 9e+11 bits, error rate below 3.3e-12 (95 %)  PASS\n"));
  EXPECT_THAT(outcome.output, EndsWith("\nPASS: 12 passed\n"));
  const auto cycles = rows();
  ASSERT_EQ(cycles.size(), 4U);
  EXPECT_THAT(content(),
              StartsWith("cycle,time,seconds" + std::string(ports) + ",DownstreamPort5"));
  double before = 0;
  for (std::size_t cycle = 1; cycle < cycles.size(); ++cycle) {
    const std::vector<std::string>& row = cycles[cycle];
    ASSERT_EQ(row.size(), cycles[0].size());
    EXPECT_EQ(row[0], std::to_string(cycle));
    EXPECT_TRUE(std::regex_match(row[1], std::regex("20..-..-..T..:..:..Z")));
    EXPECT_NEAR(std::stod(row[2]) - before, 4 * 60.1, 3) << "four links and four PRBS tests";
    before = std::stod(row[2]);
    EXPECT_THAT(std::vector(row.begin() + 3, row.begin() + 8),
                ElementsAre("pass", "0x2012", "pass", "0", "pass"));
    EXPECT_NEAR(std::stod(row[8]), 60, 0.5);
    EXPECT_EQ(row[9], "0");
    EXPECT_NEAR(std::stod(row[10]), std::stod(row[8]) * 5e9, 5e6);
    EXPECT_EQ(row.back(), "") << "some link is up";
  }
}

TEST_F(Soak, EndsAfterItsMinutes) {
  // Half a second of PRBS, a tenth of the link, for each of four ports.
  EXPECT_EQ(run("soak --minutes 1 --seconds 0 --cycles 1000").status, 0);
  const auto cycles = rows();
  EXPECT_NEAR(static_cast<double>(cycles.size() - 1), 60 / 2.4, fewer == 1 ? 2 : 8);
  EXPECT_LT(std::stod(cycles[cycles.size() - 2][2]), 60) << "the last one began in time";
  EXPECT_GE(std::stod(cycles.back()[2]), 60);
  const Outcome none = run("soak --minutes 0 --csv none.csv");
  EXPECT_EQ(none.status, 1);
  EXPECT_THAT(none.output, EndsWith("NOT TESTED: nothing tested\n"));
}

TEST_F(Soak, CyclesPower) {
  describe("[power 2]\non-delay=0.8\noff-delay=0.4\n");
  const Outcome outcome = run("soak --cycles 2 --power-cycle --json");
  const json result = json::parse(outcome.output);
  EXPECT_EQ(result["verdict"], "pass");
  EXPECT_EQ(result["run"]["passed"], 20);
  const json& on = result["soak"]["tests"]["slot2.power-on"];
  EXPECT_EQ(on["figure"], "seconds");
  EXPECT_NEAR(on["minimum"], 0.8, 0.3);
  EXPECT_NEAR(result["soak"]["tests"]["slot2.power-off"]["maximum"], 0.4, 0.3);
  EXPECT_EQ(result["soak"]["tests"]["slot4.power-on"]["runs"], 2);
  EXPECT_THAT(content(),
              AllOf(HasSubstr(",slot1.power-off,slot1.power-off.seconds,slot1.power-on,"),
                    Not(HasSubstr("slot0.power-off"))));
  EXPECT_EQ(outcome.errors, "talvero-sim: nothing left behind\n");
}

TEST_F(Soak, KeepsWhatHasFailed) {
  directory.file("d.conf", contentOf(INSTRUMENTS "/broken.conf"));
  const json result =
      json::parse(run("soak --cycles 2 --ports 2 --tests prbs --log log --json").output);
  EXPECT_EQ(result["tests"][1]["text"], "2 runs, 2 failed; 0 bits; last: no sync")
      << result["tests"][1];
  EXPECT_THAT(content("log"), HasSubstr("DownstreamPort7 (slot 2) PRBS: no sync"));
  EXPECT_EQ(rows()[1].back(), "");
}

TEST_F(Soak, RepeatsChosenTests) {
  directory.file("e.json", R"({"board": 34, "modules": {"1": true, "2": true},
      "links": {"DownstreamPort9": "5 GT/s x1"}, "limits": {"all": {"prbsErrors": 9}}})");
  describe("[at 150]\nexpander 30-0041 present=no\npci port9 link-status=0x2011\n");
  const Outcome outcome =
      run("soak --cycles 3 --seconds 99 --slots 1 --power-cycle --expect e.json "
          "--tests board,slots,prbs");
  EXPECT_EQ(outcome.status, 1);
  ASSERT_EQ(rows().size(), 4U);
  std::map<std::string, std::string> verdicts;
  for (std::size_t column = 0; column < rows()[0].size(); ++column) {
    verdicts[rows()[0][column]] = rows()[2][column] + "," + rows()[3][column];
  }
  const std::map<std::string, std::string> expected = {
      {"board.known", "pass,pass"},
      {"board.straps", "pass,pass"},
      {"slot1.controller", "pass,fail"},
      {"DownstreamPort9.link", "pass,fail"},
      {"DownstreamPort9.prbs", "fail,"},
      {"slot1.power-off", "pass,pass"},
      {"slot1.power-on", "fail,fail"},
      {"expected.board", "pass,pass"},
      {"expected.slot1.module", "pass,pass"},
      {"expected.DownstreamPort9.link", "fail,fail"},
      {"backplane", ","},
      {"ports", ","}};
  for (const auto& [test, both] : expected) {
    EXPECT_EQ(verdicts[test], both) << test;
  }
  EXPECT_EQ(verdicts.count("slot2.controller"), 0U);
  EXPECT_EQ(verdicts.count("DownstreamPort9.errors"), 0U);
}

TEST_F(Soak, RunsForLongWithFewDescriptors) {
  EXPECT_THAT(run("ulimit -n 100; soak --cycles 5 --seconds 600 --power-cycle").output,
              EndsWith("PASS: 20 passed\n"));
}

TEST_F(Soak, SeesALinkThatIsLost) {
  describe(
      "[at 10]\npci port5 link-status=0x2011\n[at 15]\npci port1 link=down\n[at 35]\npci port1 "
      "link=up\n");
  const Outcome outcome = run("soak --minutes 1 --json");
  EXPECT_EQ(outcome.status, 1);
  const json result = json::parse(outcome.output);
  EXPECT_EQ(result["verdict"], "fail");
  const json& soak = result["soak"];
  const json& link = soak["tests"]["DownstreamPort1.link"];
  const unsigned int failures = link["failures"];
  EXPECT_GE(failures, 2U);
  EXPECT_LE(failures, 9U);
  EXPECT_EQ(link["runs"], soak["cycles"]);
  EXPECT_EQ(link["statusChanges"], 2) << "lost and back";
  EXPECT_EQ(soak["tests"]["DownstreamPort5.link"]["statusChanges"], 1) << "half the speed";
  EXPECT_LT(soak["tests"]["DownstreamPort5.prbs"]["bits"],
            0.95 * soak["tests"]["DownstreamPort9.prbs"]["bits"].get<double>());
  EXPECT_GE(soak["failedCycles"], failures);
  EXPECT_EQ(soak["failedCycles"], soak["firstFailedCycles"].size());
  EXPECT_THAT(soak["firstFailedCycles"][1]["tests"].dump(), HasSubstr("DownstreamPort1.link"));
  EXPECT_LT(result["tests"].size(), 13U) << "not each cycle's";
  bool skipped = false;
  for (const auto& row : rows()) {
    skipped |= row[3] == "fail" && row[5].empty() && row[10].empty();
  }
  EXPECT_TRUE(skipped) << "no errors and PRBS without a link";
  const std::string text = run("soak --minutes 1 --csv text.csv").output;
  EXPECT_THAT(text, HasSubstr("1 failed, 9 passed; DownstreamPort1.link: link down\n"));
}

TEST_F(Soak, TestsNothingInEmptySlots) {
  description = directory.file("d.conf",
                               "[board]\nstraps=100010\n[gpio]\n80=high\n127=high\n133=high\n"
                               "134=high\n[pci]\n[pci port1]\nlink=down\n[pci port5]\nlink=down\n"
                               "[pci port7]\nlink=down\n[pci port9]\nlink=down\n");
  const Outcome outcome = run("soak --cycles 2");
  EXPECT_EQ(outcome.status, 1) << outcome.output;
  EXPECT_THAT(outcome.output, HasSubstr("ports                   0 runs, 0 failed, 2 not tested"));
  EXPECT_THAT(content(), EndsWith(",not tested\n"));
}

TEST_F(Soak, TellsStatistics) {
  directory.file("made.csv",
                 csv({"10,pass,0x2012,pass,0,pass,1.000,0,5000000000",
                      "20,pass,0x2011,fail,3,fail,0.500,4,2500000000", "30.5,fail,0x0,,,,,,",
                      "41,pass,0x2012,pass,0,fail,0.500,2,2500000000",
                      "52,pass,0x2012,pass,1,fail,0.500,9,0", "63,skipped,,,,,,,"}));
  const Outcome outcome = run("soak --cycles 6 --json --resume made.csv");
  EXPECT_EQ(outcome.status, 1) << outcome.errors;
  const json soak = json::parse(outcome.output)["soak"];
  EXPECT_EQ(soak["cycles"], 6);
  EXPECT_EQ(soak["seconds"], 63);
  EXPECT_EQ(soak["failedCycles"], 4);
  EXPECT_EQ(soak["firstFailedCycles"][0], json::parse(R"({
    "cycle": 2, "time": "2026-11-26T00:00:00Z",
    "tests": ["DownstreamPort1.errors", "DownstreamPort1.prbs"]})"));
  EXPECT_EQ(soak["tests"]["DownstreamPort1.link"],
            json::parse(R"({"runs": 5, "failures": 1, "skipped": 1, "notTested": 0,
                            "statusChanges": 3})"));
  EXPECT_EQ(soak["tests"]["DownstreamPort1.errors"],
            json::parse(R"({"runs": 4, "failures": 1, "skipped": 0, "notTested": 0,
                            "figure": "errors", "minimum": 0.0, "median": 0.5, "maximum": 3.0})"));
  json prbs = soak["tests"]["DownstreamPort1.prbs"];
  EXPECT_NEAR(prbs["errorRateLower"], 2.2019 / 1e10, 1e-14) << "of a table, for six events";
  EXPECT_NEAR(prbs["errorRateUpper"], 13.0595 / 1e10, 1e-14);
  for (const char* const key : {"errorRateLower", "errorRateUpper"}) {
    prbs.erase(key);
  }
  EXPECT_EQ(prbs, json::parse(R"({"runs": 4, "failures": 3, "skipped": 0, "notTested": 0,
                                  "figure": "errors", "minimum": 0.0, "median": 3.0,
                                  "maximum": 9.0, "bits": 1e10, "errors": 6.0,
                                  "errorRate": 6e-10})"))
      << "nine errors out of sync are no rate";
  EXPECT_EQ(soak["tests"].size(), 3U) << "of the others nothing is known";
  EXPECT_EQ(soak["series"][1], json::parse(R"({"name": "DownstreamPort1.prbs", "x": "cycle",
    "y": "errors", "points": [[1, 0.0], [2, 4.0], [4, 2.0], [5, 9.0]]})"));
}

TEST_F(Soak, TellsErrorRates) {
  const struct {
    const char* cycle;
    const char* text;
  } cases[] = {{"9,pass,0x2012,pass,0,pass,600,0,3e12", "is no number"},
               {"9,pass,0x2012,pass,0,pass,600,0,3000000000000",
                "; 3e+12 bits, error rate below 1.0e-12 (95 %)"},
               {"9,pass,0x2012,pass,0,fail,0.5,1,2000000000",
                "; 2e+09 bits, error rate 5.0e-10 (95 %: 1.3e-11 to 2.8e-09)"},
               {"9,pass,0x2012,pass,0,fail,0.5,100,2000000000",
                "; 2e+09 bits, error rate 5.0e-08 (95 %: 4.1e-08 to 6.1e-08)"},
               {"9,pass,0x2012,pass,0,fail,0.5,1000000,1000000000000",
                "; 1e+12 bits, error rate at least 1.0e-06  FAIL"},
               {"9,pass,0x2012,pass,0,fail,0.5,255,5000000000",
                "; 5e+09 bits, error rate at least 5.1e-08  FAIL"},
               {"9,pass,0x2012,pass,0,fail,0.5,,5", "made.csv:2: bits without errors in them"},
               {"9,pass,0x2012,pass,0,fail,0.5,7,0", "; errors 7; 0 bits  FAIL"}};
  for (const auto& test : cases) {
    directory.file("made.csv", csv({test.cycle}));
    const Outcome outcome = run("soak --cycles 1 --resume made.csv");
    EXPECT_THAT(outcome.output + outcome.errors, HasSubstr(test.text)) << test.cycle;
  }
  // So many that they are not to be added up one by one.
  const std::vector<std::string> many(2000, "9,pass,0x2012,pass,0,fail,0.5,200,1000000000");
  directory.file("made.csv", csv(many));
  const json soak = json::parse(run("soak --cycles 1 --json --resume made.csv").output)["soak"];
  const json& prbs = soak["tests"]["DownstreamPort1.prbs"];
  EXPECT_NEAR(prbs["errorRateLower"], (400000 - 1.96 * std::sqrt(400000)) / 2e12, 1e-12);
  EXPECT_NEAR(prbs["errorRateUpper"], (400000 + 1.96 * std::sqrt(400000)) / 2e12, 2e-12);
  EXPECT_EQ(soak["firstFailedCycles"].size(), 100U);
  EXPECT_EQ(soak["failedCycles"], 2000);
  directory.file("made.csv", csv({"9,pass,0x2012,pass,0,fail,0.5,200,1000000000",
                                  "9,pass,0x2012,pass,0,fail,0.5,4000000000000,8000000000000"}));
  const json huge = json::parse(run("soak --cycles 2 --json --resume made.csv").output)["soak"];
  EXPECT_NEAR(huge["tests"]["DownstreamPort1.prbs"]["errorRate"], 0.5, 0.001);
}

TEST_F(Soak, KeepsFewPointsOfManyCycles) {
  std::vector<std::string> cycles;
  for (int cycle = 1; cycle <= 3000; ++cycle) {
    const std::string errors = cycle == 777 ? "8" : cycle == 3000 ? "5" : "0";
    cycles.push_back("9,pass,0x2012,fail," + errors);
  }
  directory.file("made.csv", csv(cycles));
  const json soak = json::parse(run("soak --cycles 1 --json --resume made.csv").output)["soak"];
  const json& points = soak["series"][0]["points"];
  EXPECT_LE(points.size(), 256U);
  EXPECT_GE(points.size(), 128U);
  EXPECT_EQ(points[0], json::parse("[1, 0.0]"));
  int errors = 0;
  for (const json& point : points) {
    errors += point[1].get<int>();
  }
  EXPECT_EQ(errors, 13);
  EXPECT_THAT(points.dump(), HasSubstr("[777,8.0]"));
  EXPECT_THAT(points.dump(), EndsWith("[3000,5.0]]"));
}

TEST_F(Soak, GoesOnAfterSigkill) {
  Outcome outcome = run("start --minutes 60 --seconds 5 >out & sleep 100; kill -KILL $!; wait $!");
  const auto before = rows();
  ASSERT_GE(before.size(), 4U);
  EXPECT_EQ(before.back().size(), before[0].size());
  EXPECT_THAT(content(), EndsWith("\n"));
  const std::string whole = content();
  // As a loss of power cuts it off.
  directory.file("talvero-soak.csv", whole + whole.substr(whole.find("\n1,") + 1, 30));
  const std::string cycles = std::to_string(before.size());
  outcome = run("soak --minutes 60 --seconds 5 --cycles " + cycles + " --resume talvero-soak.csv");
  EXPECT_EQ(outcome.status, 0) << outcome.errors;
  EXPECT_THAT(outcome.output, StartsWith("Soak\n  cycle " + cycles + " "));
  EXPECT_THAT(outcome.output, HasSubstr(cycles + " runs, 0 failed  PASS\n"));
  EXPECT_THAT(content(), StartsWith(whole + cycles + ","));
  const auto after = rows();
  ASSERT_EQ(after.size(), before.size() + 1);
  EXPECT_NEAR(std::stod(after.back()[2]) - std::stod(before.back()[2]), 4 * 5.1, 3)
      << "the time between does not count";
  directory.file("late.csv", csv({"3599,pass,0x2012,pass,0,pass,1.000,0,5000000000"}));
  EXPECT_THAT(run("soak --minutes 60 --resume late.csv").output, HasSubstr("link    2 runs"))
      << "the time before does";
}

TEST_F(Soak, BeginsWithAHeaderThatIsCut) {
  const std::string header = csv({});
  directory.file("cut.csv", header.substr(0, 40));
  EXPECT_EQ(run("soak --cycles 1 --resume cut.csv").status, 0);
  EXPECT_THAT(content("cut.csv"), StartsWith(header + "1,"));
}

TEST_F(Soak, RefusesAFileThatDoesNotFit) {
  const std::string header = csv({});
  const std::string good = csv({"9,pass,0x2012,pass,0,pass,1.000,0,5000000000"});
  const struct {
    std::string content;
    const char* sentence;
  } cases[] = {
      {"cycle,time\n", "made.csv: its columns are not those of these tests: cycle,time,seconds,"},
      {"notes", "made.csv: its columns are not those"},
      {header.substr(0, header.size() - 1) + ",slot1.power-off\n", "its columns are not those"},
      {good + "3" + good.substr(good.find("\n1,") + 2), "made.csv:3: \"3\" instead of cycle 2"},
      {good + "2,x\n", "made.csv:3: 2 columns instead of "},
      {std::regex_replace(good, std::regex("pass"), "passed"), "made.csv:2: \"passed\" is no ver"},
      {std::regex_replace(good, std::regex("Z,9"), "Z,-9"), "made.csv:2: \"-9\" is no number"},
      {std::regex_replace(good, std::regex("0x2012"), "0x20g2"), "\"0x20g2\" is no number"},
      {std::regex_replace(good, std::regex("Z,9"), "Z,nan"), "\"nan\" is no number"},
      {std::regex_replace(good, std::regex("Z,9"), "Z,"), "\"\" is no number"}};
  for (const auto& test : cases) {
    directory.file("made.csv", test.content);
    const Outcome outcome = run("soak --cycles 2 --resume made.csv");
    EXPECT_EQ(outcome.status, 2) << test.sentence;
    EXPECT_THAT(outcome.errors, HasSubstr(test.sentence));
    EXPECT_EQ(outcome.output, "");
    EXPECT_EQ(content("made.csv"), test.content) << "nothing is lost";
  }
}

TEST_F(Soak, RefusesAWrongCall) {
  directory.file("there.csv", "mine");
  const struct {
    const char* call;
    const char* sentence;
  } cases[] = {
      {"", "how long? give --minutes or --cycles"},
      {"--cycles 1 --csv there.csv",
       "talvero-bist: there.csv exists: go on with it by --resume, or name another by --csv\n"},
      {"--cycles 1 --csv nowhere/x.csv", "nowhere/x.csv: cannot be opened: No such file"},
      {"--cycles 1 --resume none.csv", "none.csv: cannot be opened: No such file"},
      {"--cycles 1 --resume .", ".: cannot be opened: Is a directory"},
      {"--cycles 1 --resume /dev/full", "/dev/full: is no file that lines can be read from"},
      {"--cycles 1 --resume a --csv b", "--csv excludes --resume"},
      {"--cycles -1", "--cycles: must be a whole number from 0 to 1000000, not \"-1\""},
      {"--minutes 1.5", "--minutes: must be a whole number from 0 to 1000000"},
      {"--cycles 1 --seconds 86401", "0 to 86400"}};
  for (const auto& test : cases) {
    const Outcome outcome = run(std::string("soak ") + test.call);
    EXPECT_EQ(outcome.status, 2) << test.call;
    EXPECT_THAT(outcome.errors, HasSubstr(test.sentence)) << test.call;
    EXPECT_EQ(outcome.output, "") << test.call;
  }
  EXPECT_EQ(content("there.csv"), "mine");
  const Outcome twice =
      run("start --minutes 9 >out & sleep 20; soak --cycles 9 --resume talvero-soak.csv; kill $!; "
          "wait");
  EXPECT_THAT(twice.errors, HasSubstr("talvero-soak.csv: another run writes to it\n"));
}

TEST_F(Soak, EndsWhenTheDiskIsFull) {
  describe("[pci switch]\nregister-224=0x1000\n");
  const Outcome outcome =
      run("trap \"\" XFSZ; ulimit -f 4; soak --cycles 99 --power-cycle >/dev/null; echo $?");
  EXPECT_EQ(outcome.output, "2\n");
  EXPECT_EQ(outcome.errors,
            "talvero-bist: talvero-soak.csv: cannot be written: File too large\n"
            "talvero-sim: nothing left behind\n");
  EXPECT_GE(rows().size(), 3U) << "what was found is not lost";
  EXPECT_THAT(run("soak --cycles 2 --power-cycle --resume talvero-soak.csv").output,
              HasSubstr("passed\n"));
}

TEST_F(Soak, SaysWhatWasFoundUntilItIsInterrupted) {
  Outcome outcome =
      run("start --minutes 60 >out & sleep 21; kill -TERM $!; wait $!; echo $?; cat out");
  EXPECT_THAT(outcome.output, StartsWith("143\nSoak\n  cycle 1 "));
  EXPECT_THAT(outcome.output, HasSubstr("  cycle 4                 12 passed\n"
                                        "  DownstreamPort1.link    5 runs, 0 failed  PASS\n"));
  EXPECT_THAT(outcome.output, EndsWith("\n\ninterrupted (SIGTERM): 12 passed\n"));
  outcome =
      run("start --minutes 60 --csv x.csv --json >out & sleep 21; kill -HUP $!; wait $!; cat out");
  const json result = json::parse(outcome.output);
  EXPECT_EQ(result["soak"]["cycles"], 4);
  EXPECT_EQ(result["soak"]["csv"], "x.csv");
  EXPECT_EQ(result["tests"].size(), 12U);
  EXPECT_EQ(result["verdict"], "not tested");
}

TEST_F(Soak, TellsAMessageOnce) {
  describe("[pci port7]\nprbs-errors-after=0.2\nprbs-errors-per-second=100\n");
  const Outcome outcome = run("soak --cycles 5 --json");
  const json result = json::parse(outcome.output);
  EXPECT_EQ(result["messages"].size(), 1U) << result["messages"].dump();
  EXPECT_EQ(result["messages"][0]["port"], 2);
  EXPECT_EQ(result["soak"]["tests"]["DownstreamPort7.prbs"]["failures"], 5);
}

}  // namespace
