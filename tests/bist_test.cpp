// SPDX-License-Identifier: MIT
#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/Support.h"

using nlohmann::json;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

Outcome bist(const std::string& instrument, const std::string& arguments) {
  return runCommand(TALVERO_SIM " --fast --instrument " + instrument + " -- " TALVERO_BIST " " +
                    arguments);
}

/// What a JSON output says of the instrument, without what it says of the run.
json findings(const std::string& output) {
  json result = json::parse(output);
  for (const char* const key : {"format", "run", "tests"}) {
    EXPECT_EQ(result.erase(key), 1) << key;
  }
  return result;
}

std::size_t occurrences(const std::string& text, const std::string& word) {
  std::size_t count = 0;
  for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) {
    ++count;
  }
  return count;
}

/// The options of each command, and under "" those of the program.
using Interface = std::map<std::string, std::set<std::string>>;

/// What the group of the pattern matches, wherever it does.
std::set<std::string> matches(const std::string& text, const char* pattern) {
  const std::regex regex(pattern);
  std::set<std::string> all;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    all.insert(match->str(1));
  }
  return all;
}

std::string between(const std::string& text, const std::string& begin, const std::string& end) {
  const std::size_t start = text.find(begin) + begin.size();
  return text.substr(start, text.find(end, start) - start);
}

Interface inHelp() {
  constexpr char option[] = "\n +(?:-h,)?(--[a-z-]+)";
  const std::string help = bist("full", "--help").output;
  Interface result{{"", matches(help, option)}};
  for (const std::string& command : matches(between(help, "Subcommands:", "Exit"), "\n  (\\S+)")) {
    result[command] = matches(bist("full", command + " --help").output, option);
    for (const std::string& common : result[""]) {
      EXPECT_EQ(result[command].erase(common), common == "--version" ? 0 : 1) << command << common;
    }
  }
  return result;
}

/// @param entries  a part of a page that has an entry for each command after each separator
/// @param common   the part about the program's own options
Interface onPage(std::string entries, const std::string& separator, const std::string& common) {
  constexpr char option[] = "(--[a-z-]+)";
  Interface result{{"", matches(common, option)}};
  std::size_t start = entries.find(separator);
  while (start != std::string::npos) {
    const std::size_t end = entries.find(separator, start + 1);
    const std::string entry = entries.substr(start, end - start).substr(separator.size());
    result[*matches(entry, "^(?:\\.[BIR]+ )?([a-z-]+)").begin()] = matches(entry, option);
    start = end;
  }
  return result;
}

TEST(TalveroBist, IsDescribedAsItIs) {
  const Interface help = inHelp();
  const std::string page = contentOf(SOURCE_DIR "/docs/talvero-bist.md");
  EXPECT_EQ(onPage(between(page, "| Command |", "\n\n"), "\n| `", between(page, "```text", "```")),
            help);
  const std::string manual =
      std::regex_replace(contentOf(SOURCE_DIR "/bist/talvero-bist.1"), std::regex("\\\\-"), "-");
  EXPECT_EQ(onPage(between(manual, ".SH COMMANDS", ".SH"), "\n.TP\n",
                   between(manual, ".SH OPTIONS", ".SH")),
            help);
}

TEST(TalveroBist, IsCompleted) {
  const auto completed = [](const std::string& words) {
    const Outcome outcome = runCommand(
        "bash -c '. " SOURCE_DIR "/bist/completions.bash; COMP_WORDS=(" TALVERO_BIST " " + words +
        "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _talvero_bist; "
        "printf \"%s\\n\" \"${COMPREPLY[@]}\"'");
    EXPECT_EQ(outcome.errors, "") << words;
    return matches(outcome.output, "(\\S+)");
  };
  const Interface help = inHelp();
  std::set<std::string> words = help.at("");
  std::transform(help.begin(), help.end(), std::inserter(words, words.end()),
                 [](const auto& row) { return row.first; });
  words.erase("");
  EXPECT_EQ(completed("\"\""), words);
  std::set<std::string> options = help.at("soak");
  options.insert(help.at("").begin(), help.at("").end());
  options.erase("--version");
  EXPECT_EQ(completed("--json soak --cycles 2 --"), options);
  using Words = std::set<std::string>;
  EXPECT_EQ(completed("register --module 1 0 link-"),
            (Words{"link-capabilities", "link-control", "link-status"}));
  EXPECT_EQ(completed("link DownstreamPort9 S"), Words());
  EXPECT_EQ(completed("link S"), (Words{"ShimPort1", "ShimPort5"}));
  EXPECT_EQ(completed("report --tests link,p"), (Words{"link,prbs", "link,power"}));
  EXPECT_EQ(completed("power 2 o"), (Words{"on", "off"}));
  EXPECT_EQ(completed("soak --minutes \"\""), Words());
  const TemporaryDirectory directory;
  directory.file("a b", "");
  const std::string begin = directory.path + "/a";
  EXPECT_EQ(runCommand("bash -c '. " SOURCE_DIR "/bist/completions.bash; compopt() { echo $*; }; "
                       "COMP_WORDS=(" TALVERO_BIST " --log " +
                       begin +
                       "); COMP_CWORD=2; "
                       "_talvero_bist; printf \"%s\\n\" \"${COMPREPLY[@]}\"'")
                .output,
            "-o filenames\n" + begin + " b\n");
  for (const std::string& test : completed("report --tests \"\"")) {
    EXPECT_EQ(bist("full", "list").output.find("\n  " + test + " ") != std::string::npos, true)
        << test;
  }
}

TEST(TalveroSim, IsDescribedAsItIs) {
  constexpr char option[] = "(--[a-z-]+)";
  const std::string help = runCommand(TALVERO_SIM " --help; " TALVERO_SIM " set --help").output;
  std::set<std::string> options = matches(help, "\n +(?:-h,)?(--[a-z-]+)");
  const std::string manual = std::regex_replace(contentOf(SOURCE_DIR "/simulator/talvero-sim.1"),
                                                std::regex("\\\\-"), "-");
  const std::set<std::string> described = matches(manual, option);
  for (const std::string& known : options) {
    EXPECT_TRUE(known == "--help" || described.count(known) == 1) << known;
  }
  const auto completed = [](const std::string& words) {
    return runCommand("bash -c '. " SOURCE_DIR
                      "/simulator/completions.bash; COMP_WORDS=(" TALVERO_SIM " " +
                      words +
                      "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _talvero_sim; "
                      "printf \"%s\\n\" \"${COMPREPLY[@]}\"'")
        .output;
  };
  options.insert("--");
  EXPECT_EQ(matches(completed("\"\""), "(--[a-z-]*)"), options);
  EXPECT_EQ(completed("--instrument prot"), "proto-0\nproto-1\nproto-2\n");
  EXPECT_EQ(completed("--fast -- " TALVERO_SIM), TALVERO_SIM "\n");
}

TEST(TalveroBist, ReportsEveryShippedInstrument) {
  for (const auto& file : std::filesystem::directory_iterator(INSTRUMENTS)) {
    const Outcome outcome = bist(file.path(), "board --json");
    const json result = json::parse(outcome.output);
    const std::string title = contentOf(file.path());
    const std::string description = result["board"]["description"];
    const bool good = result["board"]["known"] && result["board"]["unreadableStraps"].empty();
    EXPECT_EQ(outcome.status, good ? 0 : 1) << file.path();
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
  EXPECT_EQ(findings(outcome.output), json::parse(R"({
    "board": {"id": 32, "bits": "100000", "description": "TALVERO PROTO-0 SPB", "kind": "SPB",
              "known": true, "prototype": 0, "pmbConnected": true, "imbConnected": false,
              "unreadableStraps": ["168"]},
    "messages": [],
    "failures": ["Board, strap lines: cannot be read: 168"],
    "verdict": "fail"})"));
  const std::string text = bist(file, "board").output;
  EXPECT_THAT(text, HasSubstr("TALVERO PROTO-0 SPB\n")) << "no verdict on a doubtful ID";
  EXPECT_THAT(text, HasSubstr("FAIL: 1 failed"));

  const std::string low = directory.file("low.conf",
                                         "[gpio]\n135=no-value\n167=no-value\n168=no-value\n"
                                         "169=no-value\n170=no-value\n171=low\n");
  EXPECT_THAT(bist(low, "board").output, HasSubstr("cannot be read: 135, 170, 169, 168, 167  FAIL\n"
                                                   "  kind         MMB\n"
                                                   "  prototype    no\n"));
  EXPECT_THAT(bist("proto-1", "board").output, HasSubstr("prototype    1\n"));

  const std::map<std::string, std::string> kinds = {
      {"mmb", "MMB"}, {"quindara", "QUINDARA MMB"}, {"cxb", "CXB"}, {"tuvak", "TUVAK MMB"}};
  for (const auto& [instrument, kind] : kinds) {
    const json report = json::parse(bist(instrument, "report --json").output);
    const json& board = report["board"];
    EXPECT_FALSE(report.contains("slots") || report.contains("pcie")) << "only an SPB has them";
    EXPECT_EQ(board["kind"], kind);
    EXPECT_EQ(board["prototype"], nullptr);
  }
}

TEST(TalveroBist, RefusesAWrongCall) {
  const struct {
    const char* call;
    const char* sentence;
  } cases[] = {
      {"", "no command given; the commands are report, board, slots, power, topology, link, "},
      {"bord", "\"bord\" is no command; the commands are report, board, "},
      {"power 1 maybe", "STATE: must be \"on\" or \"off\", not \"maybe\""},
      {"power 6 on", "SLOT: must be a whole number from 0 to 5, not \"6\""},
      {"link 0 --seconds 1.5", "--seconds: must be a whole number from 0 to 86400, not \"1.5\""},
      {"prbs 0 --seconds 86401", "0 to 86400"},
      {"margin 0 --drive-level 4-16", "--drive-level: must be a range of 0 to 15 such as 4-11"},
      {"margin 0 --post-cursor 11-4", "or one of them, not \"11-4\""},
      {"margin 0 --post-cursor 4-", "--post-cursor: must be a range of 0 to 15"},
      {"margin 0 --post-cursor 1-2-3", "not \"1-2-3\""},
      {"margin 0 --seconds x", "--seconds: must be a whole number from 0 to 86400"},
      {"topology -1", "MODULE: must be a whole number from 0 to 4294967295, not \"-1\""},
      {"topology 99999999999999999999", "not \"99999999999999999999\""},
      {"link Port9", "3 or DownstreamPort9 (slot 1), 4 or ShimPort1 (that of --module), "},
      {"link 6", "PORT: must be 0 or DownstreamPort1 (slot 0), 1 or DownstreamPort5 (slot 3), 2"},
      {"link 5", "give --module"},
      {"link 0 --module 4", "--module: must be a whole number from 0 to 3"},
      {"shim 4", "0 to 3"},
      {"tx 3 --post-cursor 16", "0 to 15"},
      {"tx 3 --quiet up", "--quiet: must be \"on\" or \"off\""},
      {"tx 3", "[--drive-level,--post-cursor,--quiet,--analog-loopback]"},
      {"tx 3 --quiet on --post-cursor 1", "Exactly 1 option"},
      {"board --trace /nowhere/x", "/nowhere/x: cannot be written"},
      {"--trace", "--trace: 1 required"},
      {"link 0 --clear=maybe", "clear was given a disallowed"},
      {"board >/dev/full", "standard output cannot be written"}};
  for (const auto& test : cases) {
    const Outcome outcome = bist("full", test.call);
    EXPECT_EQ(outcome.status, 2) << test.call;
    EXPECT_THAT(outcome.errors, HasSubstr(test.sentence)) << test.call;
    EXPECT_EQ(outcome.output, "") << test.call;
  }
  const Outcome untraced = bist("full", "tx 0 --drive-level 3 --trace /dev/full");
  EXPECT_EQ(untraced.status, 2);
  EXPECT_THAT(untraced.errors, HasSubstr("/dev/full: cannot be written"));
  EXPECT_THAT(untraced.output, HasSubstr("drive level  3  PASS")) << "what was found is not lost";
  const json lost = json::parse(bist("broken", "prbs 0 --seconds 1 --json").output)["messages"];
  EXPECT_EQ(lost[1], json::parse(R"({"section": "prbs", "port": 0, "text": "prbsErrors: 30"})"));
  EXPECT_THAT(bist("mmb", "--version").output,
              HasSubstr("\nplatform library: libtalvero-sim-preload.so (simulated), "
                        "libtalvero-platform.so.0 (stand-in, switches no clock source)\n"));
  EXPECT_THAT(runCommand(TALVERO_BIST " --version").output,
              EndsWith("platform library: libtalvero-platform.so.0 (stand-in, switches no clock "
                       "source)\n"));
  EXPECT_THAT(bist("mmb", "--help").output, HasSubstr("Exit status: 0"));
}

// On none of these may a test touch what it takes for an instrument's.
TEST(TalveroBist, RefusesAMachineThatIsNoInstrument) {
  const TemporaryDirectory directory;
  const std::string foreign = directory.file(
      "foreign.conf",
      "[gpio]\n135=missing\n167=missing\n168=missing\n169=missing\n170=missing\n171=missing\n"
      "[pci]\n");
  const std::string locked = directory.file("locked.conf", "[faults]\ngpio-export=on\n");
  const std::string strapless =
      directory.file("strapless.conf", "[board]\nstraps=100010\n[gpio]\n135=missing\n[pci]\n");
  const std::string trace = directory.path + "/trace";
  const std::string spbCommands[] = {"slots",    "power 1 on",         "link 0",
                                     "errors 0", "prbs 0 --seconds 1", "margin 0",
                                     "shim 1",   "tx 0 --quiet on"};
  const auto refused = [&](const std::string& instrument, const std::string& call,
                           const std::string& sentence) {
    const Outcome outcome = runCommand(TALVERO_SIM " --fast --trace " + trace + " --instrument " +
                                       instrument + " -- " TALVERO_BIST " " + call);
    EXPECT_EQ(outcome.status, 2) << call;
    EXPECT_EQ(outcome.output, "") << call;
    EXPECT_THAT(outcome.errors, HasSubstr(sentence)) << call;
    EXPECT_THAT(contentOf(trace),
                Not(AnyOf(HasSubstr("pci"), HasSubstr("udev"), HasSubstr("fpga"))))
        << call;
  };
  for (const std::string& call : spbCommands) {
    refused(foreign, call,
            "no instrument here: none of the strap lines can be read (135, 171, 170");
    refused("mmb", call,
            " needs an SPB, and by its straps this board is 0 (000000), DORVELLE MMB SINGLE GIG-E. "
            "--spb-despite-straps overrules the straps");
  }
  for (const char* const call : {"report", "board", "topology 1"}) {
    refused(foreign, call, "no instrument here: none of the strap lines can be read");
    refused(locked, call,
            "no rights to use the GPIO lines: /sys/class/gpio/export cannot be opened (Permission "
            "denied). Run it as root");
  }
  refused(strapless, "link 0",
          "2 (000010), DORVELLE MMB SINGLE GIG-E PDH FULL; cannot be read: 135.");
  EXPECT_EQ(bist(strapless, "link 0 --spb-despite-straps").status, 0);
  EXPECT_EQ(bist("mmb", "topology 1").status, 1) << "which its device tree does not describe";
  EXPECT_THAT(bist(foreign, "report --spb-despite-straps").output,
              HasSubstr("DownstreamPort1 (slot 0)         link up"));
  EXPECT_EQ(json::parse(bist("mmb", "link 0 --json --spb-despite-straps").output)["link"]["result"],
            "no PCI system");
}

TEST(TalveroBist, ReportsEveryFaultAndNoOther) {
  const Outcome full = bist("full", "report --power-cycle --json");
  EXPECT_EQ(full.status, 0) << full.output;
  EXPECT_EQ(json::parse(full.output)["failures"], json::array());
  EXPECT_EQ(json::parse(full.output)["messages"], json::array());
  EXPECT_EQ(json::parse(full.output)["powerCycle"].size(), 8);

  const Outcome broken = bist("broken", "report --power-cycle --json");
  EXPECT_EQ(broken.status, 1);
  EXPECT_EQ(json::parse(broken.output)["failures"], json::parse(R"([
    "Board, strap lines: cannot be read: 171",
    "Slots, slot 2: present, but no expander answers",
    "PCIe, DownstreamPort1 (slot 0) PRBS: 30 errors in 0.5 s",
    "PCIe, DownstreamPort5 (slot 3): port not found",
    "PCIe, DownstreamPort7 (slot 2) errors: port uncorrectable: Poisoned DLP; port correctable: Rx Errors, Bad TLP",
    "PCIe, DownstreamPort7 (slot 2) PRBS: no sync",
    "Power cycle, slot 1 on: power sequence not finished"])"));
  const json messages = json::parse(broken.output)["messages"];
  EXPECT_EQ(messages[0], json::parse(R"({"section": "slots",
                                         "text": "could not enumerate module: 1"})"));
  EXPECT_EQ(messages[8],
            json::parse(R"({"section": "pcie", "port": 0, "text": "prbsErrors: 30"})"));
  EXPECT_EQ(messages.back(), json::parse(R"({"section": "powerCycle", "slot": 1,
                                             "text": "Power on sequence done timed out"})"));
}

TEST(TalveroBist, ShowsAndSwitchesSlots) {
  const json slots = json::parse(bist("full", "slots --json").output)["slots"];
  EXPECT_EQ(slots[1],
            json::parse(R"({"slot": 1, "present": true, "on": true, "linkUp": true, "leftOn": "",
      "controller": "/sys/devices/i2c-2/i2c-11/i2c-30/30-0041/gpio/gpiochip516"})"));
  EXPECT_EQ(slots[0]["controller"], nullptr);
  EXPECT_EQ(slots[5]["linkUp"], false);

  const Outcome script = runCommand(TALVERO_SIM " --fast -- sh -c '" TALVERO_BIST
                                                " power 2 off >/dev/null; " TALVERO_BIST
                                                " slots; " TALVERO_BIST " report >/dev/null'");
  EXPECT_THAT(script.output, HasSubstr("slot 2  present   expander      off    down  PASS"));
  EXPECT_EQ(script.status, 0) << "a module that is off has no link to test";

  const Outcome cycled =
      runCommand(TALVERO_SIM " --fast -- sh -c '" TALVERO_BIST
                             " report --power-cycle >/dev/null; " TALVERO_BIST " slots --json'");
  const json after = json::parse(cycled.output)["slots"];
  EXPECT_EQ(after, slots) << "modules that were off stay off, the others on";

  EXPECT_EQ(bist("broken", "power 1 off").status, 0);
  const Outcome stuck = bist("broken", "power 1 on");
  EXPECT_EQ(stuck.status, 1);
  EXPECT_THAT(stuck.output, HasSubstr("| Power on sequence done timed out"));
  EXPECT_EQ(findings(bist("full", "power 0 off --json").output), json::parse(R"({
    "power": {"slot": 0, "requested": "off", "result": "has no power controller"}, "messages": [],
    "failures": ["Power, slot 0: has no power controller"], "verdict": "fail"})"));
  EXPECT_EQ(bist("full", "power 5 on").status, 0);
}

TEST(TalveroBist, ShowsTheTopologyOfAModule) {
  EXPECT_EQ(json::parse(bist("full", "topology 2 --json").output)["topology"], json::parse(R"({
    "module": 2, "topBus": "i2c-12", "systemBus": "i2c-32", "solutionBus": "i2c-33",
    "is2k4k": false, "expander": "/sys/devices/i2c-2/i2c-12/i2c-32/32-0041/gpio/gpiochip520"})"));
  EXPECT_THAT(bist("full", "topology 3").output,
              HasSubstr("  device tree   does not describe it  FAIL\n"
                        "  top bus       -\n"
                        "  system bus    -\n"
                        "  solution bus  -\n"
                        "  2k4k          no\n"
                        "  expander      -\n"));
  const TemporaryDirectory directory;
  const std::string wrong =
      directory.file("x.conf",
                     "[board]\nstraps=100010\n[module 2-0050]\nid=1\ntop=i2c-2/x\n"
                     "[expander 2-0041]\n[pci]\n[pci port9]\nlink=down\n");
  EXPECT_EQ(findings(bist(wrong, "topology 1 --json").output), json::parse(R"({
    "topology": {"module": 1, "error": "stoi"}, "messages": [], "verdict": "fail",
    "failures": ["Module 1, device tree: cannot be resolved: stoi"]})"));
  EXPECT_EQ(json::parse(bist(wrong, "slots --json").output)["slots"], nullptr);
  const Outcome report = bist(wrong, "report");
  EXPECT_EQ(report.status, 1);
  EXPECT_THAT(report.output, HasSubstr("backplane  cannot be set up: stoi"));
  EXPECT_THAT(report.output, ContainsRegex("DownstreamPort9 .slot 1. +link down +FAIL\n"));
}

TEST(TalveroBist, JudgesPciePorts) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("x.conf", R"([board]
straps=100010
[pci]
shim=1
[pci port1]
present=no
[pci port5]
prbs=no-sync
uncorrectable=0x100010
[pci port7]
link-lost-after=30
[pci port9]
prbs-errors-after=29
prbs-errors-per-second=24
[pci shim-port1]
link=down
)");
  const struct {
    const char* arguments;
    const char* subject;
    const char* result;
    int status;
  } cases[] = {{"link 0", "link", "port not found", 1},
               {"link downstreamport5", "link", "link up", 0},
               {"link 2 --seconds 29 --clear", "link", "link up", 0},
               {"link 2 --seconds 31", "link", "link down", 1},
               {"errors 3", "errors", "", 0},
               {"link 4 --module 1", "link", "link down", 1},
               {"prbs DownstreamPort1 --seconds 5", "prbs", "port not found", 1},
               {"prbs 1 --seconds 60", "prbs", "no sync", 1},
               {"prbs 2 --seconds 60", "prbs", "link lost", 1},
               {"prbs 2 --seconds 20", "prbs", "no errors in 20 s", 0},
               {"prbs 3 --seconds 60", "prbs", "12 errors in 29.5 s", 1},
               {"prbs ShimPort5 --module 1 --seconds 60", "prbs", "no errors in 60 s", 0}};
  for (const auto& test : cases) {
    const Outcome outcome = bist(file, test.arguments + std::string(" --json"));
    const json result = json::parse(outcome.output);
    EXPECT_EQ(result[test.subject]["result"], test.result) << test.arguments;
    EXPECT_EQ(outcome.status, test.status) << test.arguments;
    const json message = {{"section", test.subject}, {"text", "could not enumerate module: 0"}};
    EXPECT_EQ(result["messages"][0], message);
  }
  const json errors = json::parse(bist(file, "errors 1 --seconds 2 --json").output)["errors"];
  EXPECT_EQ(errors["decoded"]["portUncorrectableStatus"], "Data Link, Unsupported Request");
  EXPECT_EQ(errors["decoded"]["portCorrectableStatus"], "None");
  EXPECT_EQ(errors["record"]["portUncorrectableStatus"], 0x100010);
  EXPECT_EQ(errors["record"]["portIds"], "7a1e:1003");
  EXPECT_EQ(bist(file, "errors 1").status, 1);
  const std::string slow = directory.file(
      "slow.conf", "[board]\nstraps=100010\n[pci]\n[pci root]\nlink-status=0x2011\n");
  for (const char* const test : {"link", "errors", "prbs"}) {
    const Outcome outcome = bist(slow, test + std::string(" 0 --seconds 1 --json"));
    EXPECT_EQ(outcome.status, 1) << test;
    EXPECT_EQ(json::parse(outcome.output)[test]["result"], "root link down, status 0x2011");
    EXPECT_EQ(json::parse(outcome.output)[test]["record"]["rootLinkFault"], 1);
  }
  EXPECT_THAT(bist(slow, "errors 0").output,
              HasSubstr("\n  port                  root link down, status 0x2011  FAIL\n"
                        "  root uncorrectable    None "));
  const std::string gone =
      directory.file("gone.conf", "[board]\nstraps=100010\n[pci]\n[pci root]\npresent=no\n");
  EXPECT_THAT(bist(gone, "link 0").output, HasSubstr("root port not found  FAIL"));
  EXPECT_THAT(bist("full", "link 4 --module 0").output, HasSubstr("switch not found  FAIL"));

  const json report = json::parse(bist(file, "report --json").output);
  EXPECT_EQ(report["pcie"].size(), 4);
  EXPECT_EQ(report["failures"].size(), 3) << report["failures"];
  const std::string noisy =
      directory.file("noisy.conf",
                     "[board]\nstraps=100010\n[pci]\n[pci "
                     "port1]\nprbs-errors-after=0\nprbs-errors-per-second=1000\n"
                     "[pci port5]\nprbs-errors-after=0\nprbs-errors-per-second=2\n");
  EXPECT_THAT(bist(noisy, "prbs 0 --seconds 5").output, HasSubstr("at least 255 errors in 0.5 s"));
  EXPECT_THAT(bist(noisy, "prbs 1 --seconds 5").output, HasSubstr(" 1 error in 0.5 s"));
}

constexpr char worn[] = R"([board]
straps=100010
[gpio]
133=high
134=high
[mux 2-0070]
1=i2c-11
[mux 11-0071]
2=i2c-30
5=i2c-31
[module 11-0050]
id=1
top=i2c-2/1
system=2
solution=5
[expander 30-0041]
[power 1]
[pci]
shim=2
[pci root]
uncorrectable=0x10
correctable=0x80
[pci switch]
uncorrectable=0x1000
correctable=0x40
[pci port1]
link=down
[pci port5]
present=no
[pci port7]
link=down
uncorrectable=0x2000
correctable=0x1
register-1e8=0x33
register-1ec=0x44
[pci shim-port5]
link=down
)";

TEST(TalveroBist, ReportsWornHardware) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("worn.conf", worn);
  const std::string report = bist(file, "report --power-cycle").output;
  EXPECT_EQ(report.substr(report.find("Slots")), R"(Slots
          module    controller    power  link
  slot 0  present   -             -      down  PASS
  slot 1  present   expander      off    down  PASS
  slot 2  empty     -             -      down  PASS
  slot 3  empty     -             -      down  PASS
  slot 4  present   -             -      -     PASS
  slot 5  present   -             -      -     PASS
  | could not enumerate module: 1 (7 times)

PCIe
  DownstreamPort1 (slot 0)         link down          FAIL
  DownstreamPort5 (slot 3)         port not found     FAIL
  DownstreamPort7 (slot 2)         link down: slot 2 is empty  SKIPPED
  DownstreamPort9 (slot 1)         link down: slot 1 is off  SKIPPED
  | could not enumerate module: 1

Power cycle
  slot 1 off  off  PASS
  slot 1 on   on   PASS

FAIL: 2 failed, 10 passed, 2 skipped
)");
  const json cycle = json::parse(bist(file, "report --power-cycle --json").output)["powerCycle"];
  EXPECT_EQ(cycle[1], json::parse(R"({"step": "slot 1 on", "result": "on"})"));
  EXPECT_THAT(
      bist(file, "link 2").output,
      HasSubstr(
          "data link layer           inactive\n"
          "  errors                    root uncorrectable: Data Link; root correctable: Bad DLLP; "
          "switch uncorrectable: Poisoned DLP; switch correctable: Bad TLP; "
          "port uncorrectable: Flow Control; port correctable: Rx Errors\n"));
  const json record = json::parse(bist(file, "errors 2 --json").output)["errors"]["record"];
  json expected = record;
  expected.update(json::parse(R"({"rootUncorrectableStatus": 16, "rootCorrectableStatus": 128,
      "upstreamUncorrectableStatus": 4096, "upstreamCorrectableStatus": 64,
      "portUncorrectableStatus": 8192, "portCorrectableStatus": 1, "portRegister1E8": 51,
      "portRegister1EC": 68, "downstreamLinkUp": false, "portDataLinkActive": false})"));
  EXPECT_EQ(record, expected);
  for (const char* const test : {"link", "errors"}) {
    EXPECT_THAT(bist(file, test + std::string(" 1")).output,
                AllOf(HasSubstr("port not found  FAIL\n  | could"), HasSubstr("FAIL: 1 failed")));
  }
  EXPECT_THAT(bist(file, "link 4 --module 2").output, HasSubstr("switch not found  FAIL"))
      << "behind a link that is down";
  const std::string shim = directory.file("shim.conf", R"([board]
straps=100010
[pci]
shim=2
[pci shim-port5]
link=down
)");
  EXPECT_THAT(bist(shim, "link 4 --module 2").output, HasSubstr("link up"));
  EXPECT_THAT(bist(shim, "link 5 --module 2").output, HasSubstr("link down"));
  EXPECT_EQ(bist(shim, "tx 5 --module 2 --drive-level 0").status, 0);
  EXPECT_EQ(json::parse(bist(file, "tx 4 --module 1 --quiet off --json").output)["tx"],
            json::parse(R"({"port": 4, "name": "ShimPort1", "slot": 1, "setting": "quiet transmit",
                            "value": "off", "ok": false})"));
  EXPECT_EQ(json::parse(bist(file, "shim 0 --json").output)["shim"],
            json::parse(R"({"module": 0, "shimUpstreamFound": false, "ShimPort1": "0000:0000",
                            "shimUpstreamIds": "0000:0000", "ShimPort5": "0000:0000"})"));
  EXPECT_EQ(json::parse(bist(shim, "shim 2 --json").output)["shim"],
            json::parse(R"({"module": 2, "shimUpstreamFound": true, "ShimPort1": "7a1e:1007",
                            "shimUpstreamIds": "7a1e:1006", "ShimPort5": "7a1e:1008"})"));
}

TEST(TalveroBist, DoesNotPassWhatItHasNotTested) {
  const TemporaryDirectory directory;
  const std::string empty = directory.file("empty.conf", R"([board]
straps=100010
[gpio]
80=high
127=high
133=high
134=high
[pci]
[pci port1]
link=down
[pci port5]
link=down
[pci port7]
link=down
[pci port9]
link=down
)");
  const Outcome text = bist(empty, "report");
  EXPECT_EQ(text.status, 1);
  EXPECT_THAT(text.output,
              AllOf(HasSubstr("link down: slot 3 is empty  SKIPPED\n"),
                    HasSubstr("\n  ports                            no link is up      NOT "
                              "TESTED\n"),
                    EndsWith("\nNOT TESTED: 1 not tested, 8 passed, 4 skipped\n")));
  const json result = json::parse(bist(empty, "report --json").output);
  EXPECT_EQ(result["verdict"], "not tested");
  EXPECT_EQ(result["failures"], json::parse(R"(["PCIe, ports: no link is up"])"));
  EXPECT_EQ(result["run"]["skipped"], 4);
  EXPECT_EQ(result["run"]["board"]["id"], 34);
  EXPECT_EQ(result["tests"].back()["name"], "ports");
  EXPECT_EQ(result["tests"][9]["name"], "DownstreamPort5.link");
  EXPECT_EQ(result["tests"][9]["verdict"], "skipped");
}

TEST(TalveroBist, SaysWhenAndHowLong) {
  const json result = json::parse(bist("full", "prbs 1 --seconds 20 --json").output);
  const json& test = result["tests"][0];
  EXPECT_EQ(test["name"], "DownstreamPort5.prbs");
  EXPECT_EQ(test["figures"]["secondsAsked"], 20);
  // A slow machine takes its time too.
  EXPECT_NEAR(test["figures"]["seconds"], 20, 2);
  EXPECT_NEAR(test["seconds"], 20, 4);
  EXPECT_LT(test["start"], 4);
  EXPECT_NEAR(result["run"]["seconds"], 20, 8);
  EXPECT_EQ(result["run"]["arguments"],
            json::parse(R"(["prbs", "1", "--seconds", "20", "--json"])"));
  EXPECT_EQ(
      json::parse(bist("full", "link ShimPort5 --module 1 --json").output)["tests"][0]["name"],
      "module1.ShimPort5.link");
}

TEST(TalveroBist, TouchesWhatItIsAskedTo) {
  const TemporaryDirectory directory;
  const std::string trace = directory.path + "/trace";
  const struct {
    const char* arguments;
    std::size_t clears;  ///< of port 0; the first is the library's own
    std::size_t looks;
  } cases[] = {{"link 0", 1, 1},
               {"link 0 --clear --seconds 2", 2, 20},
               {"errors 0 --seconds 3", 2, 30},
               {"report", 9, 8}};
  for (const auto& test : cases) {
    runCommand(TALVERO_SIM " --fast --trace " + trace + " -- " TALVERO_BIST " " + test.arguments);
    const std::string accesses = contentOf(trace);
    EXPECT_EQ(occurrences(accesses, "pci write32 0000:02:01.0 fc4"), test.clears) << test.arguments;
    EXPECT_EQ(occurrences(accesses, "sleep 100000 us"), test.looks) << test.arguments;
  }
  runCommand(TALVERO_SIM " --fast --trace " + trace + " -- " TALVERO_BIST " power 1 off");
  EXPECT_THAT(contentOf(trace), AllOf(HasSubstr("bus behind i2c-2 channel 1"),
                                      Not(HasSubstr("bus behind i2c-2 channel 2"))));
}

TEST(TalveroBist, CountsTheSecondsOnATerminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
  ASSERT_EQ(grantpt(terminal), 0);
  ASSERT_EQ(unlockpt(terminal), 0);
  const int kept =
      open(ptsname(terminal), O_RDWR | O_NOCTTY);  // what is written outlasts its writer
  const auto shown = [&](const std::string& arguments) {
    EXPECT_EQ(bist("full", arguments + " 2>" + ptsname(terminal)).status, 0);
    char text[4096];
    const ssize_t size = read(terminal, text, sizeof text);
    return std::string(text, size > 0 ? static_cast<std::size_t>(size) : 0);
  };
  const auto counts = [](const std::string& what) {
    const std::string text = "\r" + what + " DownstreamPort5 (slot 3): ";
    const std::string end = "\033[K";
    return AllOf(StartsWith(text + "0 s, 2 s left" + end + text + "1 s, 1 s left" + end),
                 EndsWith("\r\033[K"));
  };
  EXPECT_THAT(shown("link 1 --seconds 2"), counts("watching"));
  EXPECT_THAT(shown("errors 1 --seconds 2"), counts("watching"));
  EXPECT_THAT(shown("prbs 1 --seconds 2"), counts("PRBS on"));
  EXPECT_THAT(shown("margin 1 --seconds 2 --drive-level 0 --post-cursor 0-1"),
              HasSubstr("\rpoint 2 of 2 on DownstreamPort5 (slot 3): 0 s, 2 s left"));
  EXPECT_THAT(shown("power 1 on"),
              AllOf(StartsWith("\rslot 1 on: 0 s, 5 s left\033[K\r"), EndsWith("\r\033[K")));
  EXPECT_THAT(shown("report --power-cycle"),
              AllOf(StartsWith("\rwatching DownstreamPort1 (slot 0): 0 s\033[K\r"),
                    HasSubstr("\rPRBS on DownstreamPort5 (slot 3): 0 s, 1 s left"),
                    HasSubstr("\rslot 5 on: 0 s, 5 s left\033[K\r"), EndsWith("\r\033[K")));
  close(kept);
  close(terminal);
}

TEST(TalveroBist, SetsUpTheShimSwitchAndTheTransmitter) {
  const TemporaryDirectory directory;
  const std::string file = directory.file(
      "x.conf", "[board]\nstraps=100010\n[pci]\nshim=3\n[pci switch]\nstuck-b98=0x8\n");
  const Outcome shim = bist(file, "shim 3");
  EXPECT_EQ(shim.status, 0);
  EXPECT_THAT(shim.output, HasSubstr("Module Downstream: 5"));
  EXPECT_EQ(json::parse(bist(file, "shim 1 --json").output)["messages"].back(), json::parse(R"({
      "section": "shim", "module": 1, "text": "Could not find device: 9"})"));
  const struct {
    const char* setting;
    int status;
  } cases[] = {{"--drive-level 7", 0}, {"--drive-level 8", 1}, {"--post-cursor 15", 0},
               {"--quiet on", 0},      {"--quiet off", 0},     {"--analog-loopback on", 0}};
  for (const auto& test : cases) {
    EXPECT_EQ(bist(file, std::string("tx 3 ") + test.setting).status, test.status) << test.setting;
  }
  const std::string trace = directory.path + "/trace";
  EXPECT_EQ(bist(file, "tx 1 --drive-level 5 --trace " + trace).status, 0);
  EXPECT_EQ(contentOf(trace), "port: 1\naddress: b98\nwrite: 5\n");
  EXPECT_EQ(bist(file, "tx 1 --analog-loopback on --trace " + trace).status, 0);
  EXPECT_THAT(contentOf(trace), HasSubstr("address: b84\nwrite: 1000\n"));
  EXPECT_EQ(bist(file, "tx 1 --analog-loopback off --trace " + trace).status, 0);
  EXPECT_THAT(contentOf(trace), Not(HasSubstr("write: 1000\n")));
  EXPECT_EQ(bist(file, "tx 1 --quiet off --trace " + trace).status, 0);
  EXPECT_EQ(contentOf(trace), "port: 1\n");
  EXPECT_THAT(bist(file, "tx 1 --drive-level 8").output,
              HasSubstr("drive level  8, but it does not read back  FAIL"));
  EXPECT_EQ(bist("broken", "power 1 on --trace " + trace).status, 1);
  EXPECT_EQ(contentOf(trace), "Power on sequence done timed out\n") << "failure lines as well";
}

}  // namespace
