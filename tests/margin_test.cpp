// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/Support.h"

using nlohmann::json;
using testing::AllOf;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;

namespace {

class Margins : public testing::Test {
 protected:
  TemporaryDirectory directory;

  /// Describes an SPB whose port 5 has the keys, with settings such as {5, 9}.
  std::string describe(const std::string& keys, int driveLevel = 5, int postCursor = 9) const {
    return directory.file("d.conf",
                          "[board]\nstraps=100010\n[pci]\nshim=1\n[pci switch]\nregister-b98=" +
                              std::to_string(0xAB0 + driveLevel) + "\nregister-ba8=" +
                              std::to_string(0xCD0 + postCursor) + "\n[pci port5]\n" + keys);
  }

  Outcome run(const std::string& description, const std::string& command) const {
    return runCommand("cd " + directory.path +
                      " && " TALVERO_SIM " --fast --state state.conf --instrument " + description +
                      " -- " TALVERO_BIST " margin " + command);
  }

  json data(const std::string& description, const std::string& command) const {
    return json::parse(run(description, command + " --json").output);
  }
};

TEST_F(Margins, AreShownAsAMap) {
  const std::string description = describe("prbs-good=5-6/3-7, 12/12\nprbs-errors-per-step=30\n");
  const Outcome outcome = run(description, "1 --drive-level 1-5 --post-cursor 6-10 --csv map.csv");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.output, R"(Margin of DownstreamPort5 (slot 3)
                post-cursor
  drive level     6   7   8   9  10
            1     !   !   !   !   !
            2   255 255   !   !   !
            3   255 255 255   !   !
            4    15  15 255 255   !
            5     .   .  15 255 255
  good region  2 settings, centre at drive level 5, post-cursor 7; may go on beyond the sweep
  present      drive level 5, post-cursor 9, not in it
  margin       at least 255 errors in 0.5 s with the present settings  FAIL

FAIL: 1 failed
)");
  const std::string csv = contentOf(directory.path + "/map.csv");
  EXPECT_EQ(csv.substr(0, csv.find("1,8")),
            "drive,postcursor,seconds,sync,errors,link\n1,6,0.0,0,,1\n1,7,0.0,0,,1\n");
  EXPECT_THAT(csv, EndsWith("\n5,6,1.0,1,0,1\n5,7,1.0,1,0,1\n5,8,0.5,1,15,1\n5,9,0.5,1,255,1\n"
                            "5,10,0.5,1,255,1\n"));
  const std::string state = contentOf(directory.path + "/state.conf");
  EXPECT_THAT(state, AllOf(HasSubstr("prbs-good=5-6/3-7, 12/12\n"),
                           HasSubstr("prbs-errors-per-step=0x1e\n"),
                           HasSubstr("register-b98=0xab5\n"), HasSubstr("register-ba8=0xcd9\n")));
  directory.file("again.conf", state);
  EXPECT_EQ(run("again.conf", "1 --drive-level 1-5 --post-cursor 6-10").output, outcome.output);
  EXPECT_THAT(run(description, "0 --drive-level 5").output, HasSubstr("PASS: 1 passed"))
      << "each port has its own";
}

TEST_F(Margins, AreJudged) {
  const struct {
    const char* what;
    std::string keys;
    int driveLevel;
    int postCursor;
    const char* options;
    const char* verdict;
    const char* region;  ///< and what comes after it
    const char* margin;
  } cases[] = {
      {"all good", "", 5, 9, "", "pass",
       "256 settings, centre at drive level 7, post-cursor 8\n  present      drive level 5, "
       "post-cursor 9, in it\n",
       "drive level down 5, up 10; post-cursor down 9, up 6"},
      {"none good", "prbs-errors-after=0\nprbs-errors-per-second=10\n", 5, 9,
       "--drive-level 4-6 --post-cursor 8-10", "fail",
       "none\n  present      drive level 5, post-cursor 9, not in it\n",
       "5 errors in 0.5 s with the present settings"},
      {"no sync", "prbs-good=15/15\n", 0, 0, "--drive-level 0 --post-cursor 0-1", "fail", "none\n",
       "no sync with the present settings"},
      {"at the end", "prbs-good=0-4/9-15\n", 2, 15, "--drive-level 0-5 --post-cursor 8-15", "pass",
       "35 settings, centre at drive level 2, post-cursor 13\n",
       "drive level down 2, up 2; post-cursor down 6, up 0"},
      {"no step", "prbs-good=5-9/5-9\n", 5, 7, "--drive-level 4-10 --post-cursor 4-10", "fail",
       "25 settings, centre at drive level 7, post-cursor 7\n",
       "drive level down 0, up 4; post-cursor down 2, up 2"},
      {"among those without sync", "prbs-good=2-4/2-4\nprbs-sync-steps=0\n", 2, 3,
       "--drive-level 1-5 --post-cursor 1-5", "fail",
       "9 settings, centre at drive level 3, post-cursor 3\n",
       "drive level down 0, up 2; post-cursor down 1, up 1"},
      {"two regions", "prbs-good=1-3/1-3, 8-12/8-12\n", 2, 2,
       "--drive-level 0-13 --post-cursor 0-13", "pass",
       "25 settings, centre at drive level 10, post-cursor 10\n  present      drive level 2, "
       "post-cursor 2, not in it\n",
       "drive level down 1, up 1; post-cursor down 1, up 1"},
      {"corners", "prbs-good=4-5/4-5, 6-8/6-8\n", 5, 5, "--drive-level 3-9 --post-cursor 3-9",
       "fail", "9 settings, centre at drive level 7, post-cursor 7\n",
       "drive level down 1, up 0; post-cursor down 1, up 0"},
      {"of a size", "prbs-good=0-2/0-2, 10-12/10-12\n", 9, 9,
       "--drive-level 0-13 --post-cursor 0-13", "fail",
       "9 settings, centre at drive level 11, post-cursor 11\n",
       "8 errors in 0.5 s with the present settings"},
      {"a row", "prbs-good=5/7-12\n", 5, 9, "--drive-level 5", "pass",
       "6 settings, centre at drive level 5, post-cursor 9; may go on beyond the sweep\n",
       "drive level down not tested, up not tested; post-cursor down 2, up 3"},
      {"an L", "prbs-good=2-10/3, 8-10/3-10\n", 3, 3, "--drive-level 1-11 --post-cursor 2-11",
       "fail", "30 settings, centre at drive level 9, post-cursor 4\n",
       "drive level down 1, up 7; post-cursor down 0, up 0"},
      {"within", "", 5, 9, "--drive-level 4-6 --post-cursor 8-10", "pass",
       "9 settings, centre at drive level 5, post-cursor 9; may go on beyond the sweep\n",
       "drive level down at least 1, up at least 1; post-cursor down at least 1, up at least 1"},
      {"elsewhere", "", 5, 9, "--drive-level 7-8 --post-cursor 9", "not tested",
       "2 settings, centre at drive level 7, post-cursor 9; may go on beyond the sweep\n",
       "present settings are not in the sweep"},
      {"alone", "", 5, 9, "--drive-level 5 --post-cursor 9", "not tested",
       "1 setting, centre at drive level 5, post-cursor 9; may go on beyond the sweep\n",
       "drive level down not tested, up not tested; post-cursor down not tested, up not tested"},
  };
  int number = 0;
  for (const auto& test : cases) {
    if (number++ % fewer != 0) {
      continue;
    }
    const std::string description = describe(test.keys, test.driveLevel, test.postCursor);
    const Outcome outcome = run(description, std::string("1 --seconds 0 ") + test.options);
    EXPECT_EQ(outcome.status, test.verdict == std::string("pass") ? 0 : 1) << test.what;
    EXPECT_THAT(outcome.output, HasSubstr(std::string("good region  ") + test.region)) << test.what;
    EXPECT_THAT(outcome.output, HasSubstr(std::string("margin       ") + test.margin + "  "))
        << test.what;
    const json result = data(description, std::string("1 --seconds 0 ") + test.options);
    EXPECT_EQ(result["verdict"], test.verdict) << test.what;
  }
}

TEST_F(Margins, AreDataForOtherPrograms) {
  const json result =
      data(describe("prbs-good=4-6/9-10\n"), "1 --drive-level 4-6 --post-cursor 7-11");
  const json& margin = result["margin"];
  EXPECT_EQ(margin["map"], json::parse(R"({
      "rows": "drive level", "columns": "post-cursor", "rowValues": [4, 5, 6],
      "columnValues": [7, 8, 9, 10, 11],
      "counts": [[8, 2, 0, 0, 2], [8, 2, 0, 0, 2], [8, 2, 0, 0, 2]], "centre": [1, 2]})"));
  EXPECT_EQ(margin["margin"], json::parse(R"({"driveLevel": {"down": 1, "up": 1},
                                              "postCursor": {"down": 0, "up": 1}})"));
  EXPECT_EQ(margin["present"], json::parse(R"({"driveLevel": 5, "postCursor": 9})"));
  EXPECT_EQ(margin["centre"], margin["present"]);
  EXPECT_EQ(margin["points"].size(), 15);
  EXPECT_EQ(margin["points"][1]["result"], "2 errors in 0.5 s");
  EXPECT_EQ(margin["points"][1]["errors"], 2);
  EXPECT_EQ(result["tests"].size(), 1) << "the points are no tests";
  EXPECT_EQ(result["tests"][0]["name"], "DownstreamPort5.margin");
  EXPECT_EQ(result["tests"][0]["figures"]["margin"], margin["margin"]);
  const json lost = data(describe("prbs-good=0/0\n"), "1 --drive-level 4 --post-cursor 7");
  EXPECT_EQ(lost["margin"]["map"]["counts"], json::parse("[[null]]"));
  EXPECT_EQ(lost["margin"]["map"]["centre"], nullptr);
  EXPECT_EQ(lost["margin"]["margin"], nullptr);
}

TEST_F(Margins, DependOnTheTimeOfATest) {
  const std::string slow = describe("prbs-good=5/9\nprbs-errors-per-step=1\nprbs-sync-steps=1\n");
  const std::string row = " --drive-level 5 --post-cursor 7-11";
  EXPECT_THAT(run(slow, "1 --seconds 0" + row).output,
              HasSubstr("\n            5     !   .   .   .   !\n"));
  EXPECT_THAT(run(slow, "1" + row).output, HasSubstr("\n            5     !   1   .   1   !\n"));
}

TEST_F(Margins, AreThoseOfAPortThatAnswers) {
  const Outcome missing = run(describe("present=no\n"), "1 --csv map.csv");
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.output,
            "Margin of DownstreamPort5 (slot 3)\n  margin       port not found  FAIL\n"
            "  | could not enumerate module: 1\n\nFAIL: 1 failed\n");
  EXPECT_EQ(contentOf(directory.path + "/map.csv"), "");
  const Outcome down = run(describe("link=down\n"), "1 --drive-level 5 --post-cursor 9-10");
  EXPECT_THAT(down.output, AllOf(HasSubstr("            5     !   !\n"),
                                 HasSubstr("link lost with the present settings  FAIL")));
  const Outcome refused = run(describe("loopback=refused\n"), "1 --drive-level 5-6");
  EXPECT_THAT(refused.output,
              HasSubstr("settings  FAIL\n  | couldn't set up looback master control\n\n"))
      << "once, and nothing that the map says";
}

TEST_F(Margins, AreOfSettingsThatReadBack) {
  const std::string stuck = describe("[pci switch]\nstuck-b98=0x1\n");
  const Outcome outcome = run(stuck, "1 --drive-level 5-6 --post-cursor 9-10 --csv map.csv");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_THAT(outcome.output, HasSubstr("            5     .   .\n            6     ?   ?\n"));
  EXPECT_THAT(contentOf(directory.path + "/map.csv"), EndsWith("\n6,9,0.0,,,\n6,10,0.0,,,\n"));
  EXPECT_THAT(run(describe("[pci switch]\nstuck-ba8=0x1\n"), "1 --drive-level 5-6").output,
              HasSubstr("            5     ?   .   ?   .   ?"));
  EXPECT_THAT(run(stuck, "1 --drive-level 6 --post-cursor 9").output,
              HasSubstr("present settings are not in the sweep  NOT TESTED"));
}

TEST_F(Margins, AreThoseOfAShimSwitchToo) {
  const std::string shim = describe(
      "[pci shim]\nregister-b98=0x3\nregister-ba8=0x3\n"
      "[pci shim-port5]\nprbs-good=3-5/3\n");
  EXPECT_THAT(run(shim, "ShimPort5 --module 1 --drive-level 2-5 --post-cursor 3").output,
              HasSubstr("drive level down 0, up at least 2; post-cursor down not tested"));
  EXPECT_THAT(contentOf(directory.path + "/state.conf"), HasSubstr("register-b98=0x3\n"));
}

TEST_F(Margins, ChangeWhileTheInstrumentRuns) {
  const std::string changing = describe("[at 2.5]\npci port5 prbs-good=0-15/9\n");
  EXPECT_THAT(run(changing, "1 --drive-level 5 --post-cursor 7-11").output,
              HasSubstr("\n            5     .   .   .   2   8\n"));
}

TEST_F(Margins, AreWrittenOrNot) {
  const Outcome outcome = run(describe(""), "1 --csv /dev/full");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, HasSubstr("talvero-bist: /dev/full: cannot be written"));
  EXPECT_THAT(run(describe(""), "1 --csv /nowhere/x").errors,
              HasSubstr("/nowhere/x: cannot be written"));
}

TEST_F(Margins, AreKeptWhenInterrupted) {
  const Outcome outcome =
      runCommand("cd " + directory.path +
                 " && " TALVERO_SIM " --fast --summary --state state.conf --instrument " +
                 describe("prbs-good=0-15/0-2\n") +
                 " -- sh -c '" TALVERO_BIST
                 " margin 1 --seconds 20 --csv map.csv & sleep 90; kill $!; wait $!; echo $?'");
  EXPECT_THAT(
      outcome.output,
      AllOf(HasSubstr("\n            0     .   .   .   2   8  32   !"),
            EndsWith("\n            1     .\n\ninterrupted (SIGTERM): nothing tested\n143\n")));
  EXPECT_THAT(contentOf(directory.path + "/map.csv"),
              ContainsRegex("\n0,15,0\\.0,0,,1\n1,0,2[0-4]\\.[0-9],1,0,1\n$"))
      << "a setting that was being tested is not there, the others are";
  const Outcome data =
      runCommand("cd " + directory.path + " && " TALVERO_SIM " --fast --instrument " +
                 describe("prbs-good=0-15/0-2\n") +
                 " -- sh -c '" TALVERO_BIST
                 " --json margin 1 --seconds 20 --post-cursor 2-4 >out & sleep 30; kill $!; wait "
                 "$!; cat out'");
  const json map = json::parse(data.output)["margin"]["map"];
  EXPECT_EQ(map["rowValues"].size(), map["counts"].size()) << map;
  EXPECT_EQ(map["counts"][0], json::parse("[0, 2, 8]")) << "the rows that are done";
  for (const json& row : map["counts"]) {
    EXPECT_EQ(row.size(), 3U) << "and the one that is not";
  }
  EXPECT_LT(map["counts"].size(), 16U);
  const Outcome early = runCommand(
      TALVERO_SIM " --fast --instrument " + describe("") +
      " -- sh -c '" TALVERO_BIST
      " --json margin 1 --seconds 20 --drive-level 4-5 --post-cursor 9 & sleep 30; kill $!; wait'");
  EXPECT_EQ(json::parse(early.output)["margin"]["result"],
            "the present settings are not tested yet");
  EXPECT_THAT(contentOf(directory.path + "/state.conf"),
              AllOf(HasSubstr("register-b98=0xab5\n"), HasSubstr("register-ba8=0xcd9\n")));
}

}  // namespace
