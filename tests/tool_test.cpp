#include <gmock/gmock.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "tests/Support.h"

using nlohmann::json;
using testing::HasSubstr;

namespace {

Outcome bist(const std::string& instrument, const std::string& arguments) {
  return runCommand(TALVERO_SIM " --fast --instrument " + instrument + " -- " TALVERO_BIST " " +
                    arguments);
}

TEST(TalveroBist, ReportsEveryShippedInstrument) {
  for (const auto& file : std::filesystem::directory_iterator(INSTRUMENTS)) {
    const Outcome outcome = bist(file.path(), "board --json");
    const json result = json::parse(outcome.output);
    const std::string title = contentOf(file.path());
    const std::string description = result["board"]["description"];
    EXPECT_EQ(outcome.status, result["board"]["known"] ? 0 : 1) << file.path();
    EXPECT_EQ(result["verdict"], outcome.status == 0 ? "pass" : "fail");
    if (result["board"]["known"]) {
      EXPECT_THAT(title.substr(0, title.find('\n')), HasSubstr(description));
    }
    EXPECT_EQ(outcome.errors, "");
  }
}

TEST(TalveroBist, SaysWhichBoardThisIs) {
  const TemporaryDirectory directory;
  const std::string file =
      directory.file("x.conf", "[board]\nstraps=100000\n[gpio]\n168=no-value\n[i2c]\n0-0074=pmb\n");
  const Outcome outcome = bist(file, "board --json");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(json::parse(outcome.output), json::parse(R"({
    "board": {"id": 32, "bits": "100000", "description": "TALVERO PROTO-0 SPB", "kind": "SPB",
              "known": true, "prototype": 0, "pmbConnected": true, "imbConnected": false,
              "unreadableStraps": ["168"]},
    "messages": [],
    "failures": ["Board, strap lines: cannot be read: 168"],
    "verdict": "fail"})"));
  const std::string text = bist(file, "board").output;
  EXPECT_THAT(text, HasSubstr("TALVERO PROTO-0 SPB  "));
  EXPECT_THAT(text, HasSubstr("FAIL: 1 fault\n"));

  const std::map<std::string, std::string> kinds = {
      {"mmb", "MMB"}, {"quindara", "QUINDARA MMB"}, {"cxb", "CXB"}, {"tuvak", "TUVAK MMB"}};
  for (const auto& [instrument, kind] : kinds) {
    const json board = json::parse(bist(instrument, "report --json").output)["board"];
    EXPECT_EQ(board["kind"], kind);
    EXPECT_EQ(board["prototype"], nullptr);
  }
}

TEST(TalveroBist, ExitsWith2WithoutHardwareOrForAWrongCall) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("x.conf", "[faults]\ngpio-export=on\n");
  const Outcome outcome = bist(file, "board");
  EXPECT_EQ(outcome.status, 2);
  EXPECT_THAT(outcome.errors, HasSubstr("no instrument here"));
  EXPECT_EQ(bist("mmb", "").status, 2);
  EXPECT_EQ(bist("mmb", "bord").status, 2);
  EXPECT_EQ(bist("mmb", "board --trace /nowhere/x").status, 2);
  EXPECT_EQ(bist("mmb", "--version").status, 0);
  EXPECT_THAT(bist("mmb", "--help").output, HasSubstr("Exit status: 0"));
}

}  // namespace
