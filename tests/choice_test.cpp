// SPDX-License-Identifier: MIT
#include <gmock/gmock.h>

#include <nlohmann/json.hpp>

#include "tests/Support.h"

using nlohmann::json;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

class Choice : public testing::Test {
 protected:
  TemporaryDirectory directory;

  /// Runs a shell script, in which "bist" is the program, in the directory, on an instrument.
  Outcome run(const std::string& script, const std::string& instrument = "full",
              const std::string& options = "") const {
    return runCommand("cd " + directory.path + " && " TALVERO_SIM " --fast " + options +
                      " --instrument " + instrument +
                      " -- sh -c 'bist() { " TALVERO_BIST " \"$@\"; }; " + script + "'");
  }

  /// The names of the tests that a command makes.
  std::vector<std::string> testsOf(const std::string& arguments) const {
    std::vector<std::string> names;
    const json result = json::parse(run("bist --json " + arguments).output);
    for (const json& test : result["tests"]) {
      names.push_back(test["name"]);
    }
    return names;
  }
};

TEST_F(Choice, OfTestsSlotsAndPorts) {
  EXPECT_THAT(testsOf("report --tests link --slots 0,3"),
              testing::ElementsAre("DownstreamPort1.link", "DownstreamPort5.link"));
  EXPECT_THAT(testsOf("report --tests prbs,errors --ports 2"),
              testing::ElementsAre("DownstreamPort7.link", "DownstreamPort7.errors",
                                   "DownstreamPort7.prbs"));
  EXPECT_THAT(
      testsOf("report --tests board --power-cycle --slots 2"),
      testing::ElementsAre("board.known", "board.straps", "slot2.power-off", "slot2.power-on"));
  EXPECT_EQ(testsOf("report --tests slots --ports downstreamport1").size(), 6U);
  EXPECT_THAT(testsOf("report --tests power,slots --slots 1"),
              testing::ElementsAre("slot1.controller", "slot1.power-off", "slot1.power-on"));
  EXPECT_EQ(json::parse(run("bist --json report --tests prbs --ports 0 --seconds 40")
                            .output)["tests"][1]["figures"]["secondsAsked"],
            40);
  for (const char* const wrong : {"--tests lnk", "--slots 6", "--ports 4", "--seconds x"}) {
    EXPECT_EQ(run(std::string("bist report ") + wrong).status, 2) << wrong;
  }
  EXPECT_THAT(run("bist report --tests link --ports 0 --slots 3").output,
              HasSubstr("ports                            none is chosen     NOT TESTED"));
  const Outcome list = run("bist list");
  EXPECT_EQ(list.status, 0);
  EXPECT_THAT(list.output,
              AllOf(HasSubstr("  prbs         PRBS loopback test of the ports: PORT.prbs\n"),
                    Not(HasSubstr("PASS"))));
}

TEST_F(Choice, OfWhatMustBeThere) {
  Outcome outcome = run("bist report --write-expectation good.json");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_THAT(outcome.output, HasSubstr("Expectation\n  good.json  written\n"));
  const json good = json::parse(contentOf(directory.path + "/good.json"));
  EXPECT_EQ(good["links"]["DownstreamPort9"], "5 GT/s x1");
  EXPECT_THAT(testsOf("report --tests expectation --slots 3 --expect good.json"),
              testing::ElementsAre("expected.board", "expected.slot3.module",
                                   "expected.slot3.controller", "expected.DownstreamPort5.link"));
  EXPECT_THAT(testsOf("report --tests board --ports 0 --expect good.json"),
              testing::IsSupersetOf({"expected.slot5.module", "expected.DownstreamPort1.link"}));
  EXPECT_EQ(run("bist report --tests expectation").errors,
            "talvero-bist: the test \"expectation\" needs a file: give --expect\n");
  EXPECT_EQ(run("bist report --expect good.json").status, 0);
  const json result =
      json::parse(run("change() { " TALVERO_SIM " set \"$@\"; };"
                      "change \"gpio 127=high\" \"expander 30-0041 present=no\" \"gpio 167=high\" "
                      "\"pci port5 link=down\" \"gpio 134=high\" \"pci port1 link-status=0x2041\";"
                      "bist --json report --spb-despite-straps --expect good.json")
                      .output);
  const json& failures = result["failures"];
  for (const char* const failure :
       {"Expectation, board: 35, expected 34", "Expectation, slot 1 module: none, expected there",
        "Expectation, slot 1 controller: none, expected there",
        "Expectation, slot 3 module: none, expected there",
        "Expectation, DownstreamPort1 link: 2.5 GT/s x4, expected 5 GT/s x1",
        "Expectation, DownstreamPort5 link: down, expected 5 GT/s x1"}) {
    EXPECT_THAT(failures, testing::Contains(failure)) << failures;
  }
  EXPECT_EQ(std::count_if(failures.begin(), failures.end(),
                          [](const std::string& text) { return text.find("Expectation") == 0; }),
            7)
      << failures;

  outcome = run("bist report --expect good.json", "mmb");
  EXPECT_EQ(outcome.status, 1) << "a board without slots has none of what must be there";
  EXPECT_THAT(outcome.output,
              AllOf(HasSubstr("  board                 0, expected 34"),
                    HasSubstr("slot 1 module         no such part, expected there")));
  EXPECT_EQ(run("bist report --write-expectation mmb.json", "mmb").status, 0);
  EXPECT_EQ(run("bist report --expect mmb.json", "mmb").status, 0);

  outcome = run("bist report --write-expectation bad.json", "broken");
  EXPECT_THAT(outcome.output, HasSubstr("bad.json  not written: not everything has passed  FAIL"));
  EXPECT_EQ(run("ls").output.find("bad.json"), std::string::npos) << "nor a draft of it";
  EXPECT_EQ(run("bist report --write-expectation nowhere/x", "full").errors,
            "talvero-bist: nowhere/x: cannot be written (No such file or directory)\n");
  const std::string empty = directory.file(
      "empty.conf",
      "[board]\nstraps=100010\n[gpio]\n80=high\n127=high\n133=high\n134=high\n[pci]\n[pci port1]\n"
      "link=down\n[pci port5]\nlink=down\n[pci port7]\nlink=down\n[pci port9]\nlink=down\n");
  directory.file("empty.json", R"({"modules": {"0": false, "3": false}, "links": {
      "DownstreamPort1": "down", "DownstreamPort5": "down", "DownstreamPort7": "down",
      "DownstreamPort9": "down"}})");
  EXPECT_EQ(run("bist report", empty).status, 1) << "not tested";
  EXPECT_EQ(run("bist report --expect empty.json", empty).status, 0) << "as it must be";
  directory.file("one.json", R"({"links": {"DownstreamPort5": "down"}})");
  EXPECT_EQ(run("bist report --expect one.json", empty).status, 1)
      << "of the others it is not said";
  EXPECT_EQ(run("bist report --expect one.json --slots 3", empty).status, 0);
  directory.file("limits.json", R"({"limits": {"all": {"prbsErrors": 7}}})");
  EXPECT_EQ(run("bist report --expect limits.json --write-expectation limits.json").status, 0);
  const json renewed = json::parse(contentOf(directory.path + "/limits.json"));
  EXPECT_EQ(renewed["limits"]["all"]["prbsErrors"], 7);
  EXPECT_EQ(renewed["links"], good["links"]);
  EXPECT_EQ(run("bist report --tests board --write-expectation x.json").status, 2);
}

TEST_F(Choice, OfWhatCannotBeTested) {
  const std::string bare = directory.file("x.conf", "[board]\nstraps=100010\n[pci]\n");
  const std::pair<const char*, std::string> untested[] = {
      {"report --power-cycle", bare},          {"report --tests board,power", bare},
      {"soak --cycles 1 --power-cycle", bare}, {"report --tests board,prbs", "cxb"},
      {"report --power-cycle", "cxb"},         {"report --tests link --slots 4", "full"}};
  for (const auto& [call, instrument] : untested) {
    const Outcome outcome = run(std::string("bist ") + call, instrument);
    EXPECT_EQ(outcome.status, 1) << call;
    EXPECT_THAT(outcome.output, HasSubstr("NOT TESTED: 1 not tested")) << call;
  }
  EXPECT_THAT(run("bist report --tests board,prbs", "cxb").output,
              HasSubstr("Not tested\n  prbs  this board has no slots  NOT TESTED\n"));
  EXPECT_EQ(run("bist report --slots 4").status, 0) << "it has no port";
  const Outcome stuck = run("bist report --power-on --tests slots --slots 1; bist power 1 off",
                            directory.file("x.conf", contentOf(INSTRUMENTS "/full.conf") +
                                                         "[power 1]\ninitially=off\n[fail write "
                                                         "/sys/platform/gpio_module1_power_en/value"
                                                         " \"0\"]\n"));
  EXPECT_THAT(stuck.output, HasSubstr("Power off again\n  slot 1 off  reads on  FAIL\n"));
  const json cycle = json::parse(
      run("bist --json report --tests power --slots 1",
          directory.file("x.conf", contentOf(INSTRUMENTS "/full.conf") +
                                       "[power 1]\ninitially=off\n[fail write "
                                       "/sys/platform/gpio_module1_power_en/value \"0\"]\n"
                                       "after=1\n"))
          .output);
  EXPECT_EQ(cycle["tests"].back()["name"], "slot1.off-again") << "what has been off stays on";
  EXPECT_EQ(cycle["verdict"], "fail");
}

TEST_F(Choice, OfLimits) {
  directory.file("limits.json", R"({"limits": {"all": {"prbsErrors": 29},
      "DownstreamPort1": {"prbsErrors": 30},
      "DownstreamPort7": {"ignoredUncorrectable": 4096, "ignoredCorrectable": 1}}})");
  const json result = json::parse(run("bist --json report --expect limits.json", "broken").output);
  for (const json& test : result["tests"]) {
    if (test["name"] == "DownstreamPort1.prbs") {
      EXPECT_EQ(test["verdict"], "pass") << test;
      EXPECT_EQ(test["limit"]["errors"], 30);
      EXPECT_EQ(test["figures"]["errors"], 30);
    }
    if (test["name"] == "DownstreamPort7.errors") {
      EXPECT_EQ(test["text"], "port correctable: Bad TLP");
      EXPECT_EQ(test["figures"]["portUncorrectableStatus"], "0x1000") << "also what is ignored";
      EXPECT_EQ(test["limit"]["ignoredUncorrectable"], "0x1000");
    }
    if (test["name"] == "DownstreamPort7.prbs") {
      EXPECT_EQ(test["verdict"], "fail") << "no sync is no number of errors";
    }
  }
  EXPECT_EQ(
      run("bist report --tests prbs --ports 0 --seconds 3 --expect limits.json", "broken").status,
      1)
      << "30 at once are not more than 30, and 60 come";
  directory.file("many.json", R"({"limits": {"all": {"prbsErrors": 200}}})");
  const json longer = json::parse(
      run("bist --json report --tests prbs --ports 0 --seconds 3 --expect many.json", "broken")
          .output)["tests"][1];
  EXPECT_EQ(longer["verdict"], "pass") << "while fewer have come, it is tested for all of the time";
  EXPECT_NEAR(longer["figures"]["seconds"], 3, 0.6);
  EXPECT_GE(longer["figures"]["errors"], 120) << "30 in each half of a second";
  const std::pair<const char*, const char*> wrong[] = {
      {"{", "is no JSON"},
      {"[]", "is no JSON object"},
      {R"({"bord": 1})", R"("bord" must be board, modules, controllers, links or limits)"},
      {R"({"format": 2})", R"("format" must be 1)"},
      {R"({"board": "x"})", R"("board" must be a number)"},
      {R"({"modules": {"6": true}})", R"("modules.6" must be of a slot, 0 to 5)"},
      {R"({"links": {"ShimPort1": "down"}})", R"("links.ShimPort1" must be of a slot)"},
      {R"({"modules": {"1": 1}})", R"("modules.1" must be true or false)"},
      {R"({"limits": {"all": {"x": 1}}})", R"("limits.all.x" must be a limit: prbsErrors)"},
      {R"({"limits": {"all": {"prbsErrors": -1}}})",
       R"("limits.all.prbsErrors" must be a number)"}};
  for (const auto& [text, reason] : wrong) {
    directory.file("wrong.json", text);
    const Outcome outcome = run("bist report --expect wrong.json");
    EXPECT_EQ(outcome.status, 2) << text;
    EXPECT_THAT(outcome.errors, AllOf(StartsWith("talvero-bist: wrong.json: "), HasSubstr(reason)));
  }
}

TEST_F(Choice, ToTurnModulesOnFirst) {
  Outcome outcome = run("bist power 1 off >log; bist report --power-on; bist slots", "full",
                        "--summary --state state");
  EXPECT_THAT(outcome.output, AllOf(HasSubstr("Power on\n  slot 1 on  on  PASS\n"),
                                    HasSubstr("DownstreamPort9 (slot 1) PRBS    no errors in 1 s"),
                                    HasSubstr("slot 1  present   expander      off    down")));
  EXPECT_THAT(outcome.errors, HasSubstr("left behind: module 1 off"));
  EXPECT_THAT(run("bist report --power-on --tests link", "broken").output,
              AllOf(HasSubstr("Power on\n  slot 1 on  power sequence not finished  FAIL\n"),
                    HasSubstr("DownstreamPort9 (slot 1)         link down          FAIL")));
}

TEST_F(Choice, SlotsFailByWhatTheyShow) {
  const std::string broken = directory.file(
      "x.conf", contentOf(INSTRUMENTS "/full.conf") +
                    "[power 1]\non-delay=never\n[gpio]\n133=no-value\n80=no-value\n");
  const json result = json::parse(run("bist --json slots", broken).output);
  EXPECT_EQ(result["failures"], json::parse(R"(["Slots, slot 0: presence line 80 cannot be read",
                            "Slots, slot 1: on, but its power sequence is not finished",
                            "Slots, slot 2: presence line 133 cannot be read",
                            "Slots, slot 5: presence line 80 cannot be read"])"));
}

TEST_F(Choice, OfRegisters) {
  const std::string stuck =
      directory.file("x.conf",
                     "[board]\nstraps=100010\n[pci]\nshim=1\n[pci switch]\nstuck-b98=0x8\n"
                     "[pci port7]\nreadable=no\n[pci port5]\nregister-2c=0x12345678\n");
  const struct {
    const char* arguments;
    const char* value;
    const char* before;
  } cases[] = {{"1 link-status", "0x2012", nullptr},
               {"1 0x2c", "0x12345678", nullptr},
               {"1 0x2d --width 8", "0x56", nullptr},
               {"1 0x2e --width 16 --mask 0xff0", "0x0230", nullptr},
               {"1 drive-level --set 5", "0x00000005", "0x00000000"},
               {"1 0xba8 --switch --set 0xff --mask 0xf0", "0x000000f0", "0x00000000"},
               {"ShimPort1 --module 1 ids", "0x10077a1e", nullptr},
               {"ShimPort1 --module 1 0 --switch", "0x10067a1e", nullptr}};
  for (const auto& test : cases) {
    const json data =
        json::parse(run("bist --json register " + std::string(test.arguments), stuck).output);
    EXPECT_EQ(data["register"]["value"], test.value) << test.arguments;
    EXPECT_EQ(data["register"].value("before", json()),
              test.before == nullptr ? json() : json(test.before));
    EXPECT_EQ(data["verdict"], "pass");
  }
  EXPECT_THAT(run("bist register 1 drive-level --set 9", stuck).output,
              HasSubstr("0x00000001, before 0x00000000: it does not read back  FAIL"));
  EXPECT_THAT(run("bist register 2 ids", stuck).output,
              HasSubstr("cannot be accessed: Input/output error  FAIL"));
  EXPECT_THAT(run("bist register 1 ids", "broken").output, HasSubstr("port not found  FAIL"));
  EXPECT_EQ(run("bist register 1 correctable-status --set 0x40", stuck).status, 0)
      << "a bit that is written clears";
  EXPECT_THAT(run("bist register 1 016", stuck).output, HasSubstr("offset  0x010\n"));
  for (const char* const wrong :
       {"010 --set 0x8x", "ids --switch", "ids --width 32", "0 --mask 0", "0 --width 8 --set 0x100",
        "0x1000", "0x3d", "0x3e --width 32", "nothing", "ids --width 24", "ids --set x", "-4",
        "0 --mask 0x1ffffffff"}) {
    EXPECT_EQ(run(std::string("bist register 1 ") + wrong, stuck).status, 2) << wrong;
  }
}

TEST_F(Choice, ToStopWhatWasLeftOn) {
  const std::string left = directory.file(
      "x.conf",
      "[board]\nstraps=100010\n[pci]\nshim=1\n[pci switch]\nregister-25c=0x08000000\n"
      "register-224=0x1100\n[pci shim]\nregister-224=0x100\n");
  const Outcome said = run("bist link 1; bist errors 2; bist slots; bist link 0", left);
  EXPECT_THAT(said.output,
              AllOf(HasSubstr("left on                   PRBS; talvero-bist stop ends that"),
                    HasSubstr("left on               loopback; talvero-bist stop ends that"),
                    HasSubstr("slot 1  loopback left on; talvero-bist stop ends that"),
                    HasSubstr("slot 3  PRBS left on; talvero-bist stop ends that")));
  EXPECT_THAT(said.output.substr(said.output.rfind("Link")), Not(HasSubstr("left on")));
  const Outcome stopped = run("bist stop 1; bist stop; bist slots", left, "--state state");
  EXPECT_THAT(
      stopped.output,
      AllOf(StartsWith("PRBS and loopback\n  DownstreamPort5 (slot 3)  PRBS, now off  PASS\n"),
            HasSubstr("DownstreamPort7 (slot 2)  loopback, now off  PASS\n"),
            HasSubstr("DownstreamPort9 (slot 1)  loopback, now off  PASS\n"),
            HasSubstr("ShimPort5 (slot 1)        loopback, now off  PASS\n"),
            EndsWith("PASS: 6 passed\n")));
  EXPECT_THAT(contentOf(directory.path + "/state"),
              AllOf(Not(HasSubstr("register-25c")), Not(HasSubstr("register-224"))));
}

}  // namespace
