#include <gmock/gmock.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "tests/Support.h"

using nlohmann::json;
using testing::HasSubstr;

namespace {

Outcome bist(const std::string& instrument, const std::string& arguments) {
  return runCommand(TALVERO_SIM " --fast --instrument " + instrument + " -- " TALVERO_BIST " " +
                    arguments);
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
    EXPECT_EQ(result[command].erase("--help"), 1) << command;
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

  std::set<std::string> words;
  for (const auto& [command, options] : help) {
    words.insert(options.begin(), options.end());
    words.insert(command);
  }
  words.erase("");
  const Outcome completion =
      runCommand("bash -c '. " SOURCE_DIR
                 "/bist/completions.bash; COMP_WORDS=(talvero-bist \"\") COMP_CWORD=1; "
                 "_talvero_bist; printf \"%s\\n\" \"${COMPREPLY[@]}\"'");
  EXPECT_EQ(matches(completion.output, "(\\S+)"), words) << completion.errors;
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
  EXPECT_THAT(outcome.errors, HasSubstr("cannot be opened (Permission denied)"));
  EXPECT_EQ(bist("mmb", "").status, 2);
  EXPECT_EQ(bist("mmb", "bord").status, 2);
  EXPECT_EQ(bist("mmb", "board --trace /nowhere/x").status, 2);
  EXPECT_EQ(bist("full", "tx 0 --drive-level 3 --trace /dev/full").status, 2);
  EXPECT_EQ(bist("mmb", "board >/dev/full").status, 2);
  EXPECT_EQ(bist("mmb", "--version").status, 0);
  EXPECT_THAT(bist("mmb", "--help").output, HasSubstr("Exit status: 0"));
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
    "Slots, slot 2: present   no expander   -      up",
    "PCIe, DownstreamPort1 PRBS: 30 errors in 1 s",
    "PCIe, DownstreamPort5: port not found",
    "PCIe, DownstreamPort7 errors: port uncorrectable: Poisoned DLP; port correctable: Rx Errors, Bad TLP",
    "PCIe, DownstreamPort7 PRBS: no sync",
    "Power cycle, slot 1 on: power sequence not finished"])"));
}

TEST(TalveroBist, ShowsAndSwitchesSlots) {
  const json slots = json::parse(bist("full", "slots --json").output)["slots"];
  EXPECT_EQ(slots[1], json::parse(R"({"slot": 1, "present": true, "on": true, "linkUp": true,
      "controller": "/sys/devices/i2c-2/i2c-11/i2c-30/30-0041/gpio/gpiochip520"})"));
  EXPECT_EQ(slots[0]["controller"], nullptr);
  EXPECT_EQ(slots[5]["linkUp"], false);

  const Outcome script = runCommand(TALVERO_SIM " --fast -- sh -c '" TALVERO_BIST
                                                " power 2 off >/dev/null; " TALVERO_BIST
                                                " slots; " TALVERO_BIST " report >/dev/null'");
  EXPECT_THAT(script.output, HasSubstr("slot 2  present   expander      off    down  PASS"));
  EXPECT_EQ(script.status, 0) << "a module that is off has no link to test";

  EXPECT_EQ(bist("broken", "power 1 off").status, 0);
  const Outcome stuck = bist("broken", "power 1 on");
  EXPECT_EQ(stuck.status, 1);
  EXPECT_THAT(stuck.output, HasSubstr("| Power on sequence done timed out"));
  EXPECT_EQ(bist("full", "power 0 on").status, 1) << "no power controller";
  EXPECT_EQ(bist("full", "power 6 on").status, 2);
  EXPECT_EQ(bist("full", "power 1 up").status, 2);
}

TEST(TalveroBist, ShowsTheTopologyOfAModule) {
  EXPECT_EQ(json::parse(bist("full", "topology 2 --json").output)["topology"], json::parse(R"({
    "module": 2, "topBus": "i2c-12", "systemBus": "i2c-32", "solutionBus": "i2c-33",
    "is2k4k": false, "expander": "/sys/devices/i2c-2/i2c-12/i2c-32/32-0041/gpio/gpiochip524"})"));
  EXPECT_EQ(bist("full", "topology 3").status, 1);
  const TemporaryDirectory directory;
  const std::string wrong =
      directory.file("x.conf",
                     "[board]\nstraps=100010\n[module 2-0050]\nid=1\ntop=i2c-2/x\n"
                     "[expander 2-0041]\n[pci]\n");
  EXPECT_THAT(bist(wrong, "topology 1").output, HasSubstr("cannot be resolved: stoi"));
  const Outcome report = bist(wrong, "report");
  EXPECT_EQ(report.status, 1);
  EXPECT_THAT(report.output, HasSubstr("backplane  cannot be set up: stoi"));
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
               {"prbs 3 --seconds 60", "prbs", "12 errors in 60 s", 1},
               {"prbs ShimPort5 --module 1 --seconds 60", "prbs", "no errors in 60 s", 0}};
  for (const auto& test : cases) {
    const Outcome outcome = bist(file, test.arguments + std::string(" --json"));
    const json result = json::parse(outcome.output);
    EXPECT_EQ(result[test.subject]["result"], test.result) << test.arguments;
    EXPECT_EQ(outcome.status, test.status) << test.arguments;
    EXPECT_EQ(result["messages"][0], "could not enumerate module: 0");
  }
  const json errors = json::parse(bist(file, "errors 1 --seconds 2 --json").output)["errors"];
  EXPECT_EQ(errors["decoded"]["portUncorrectableStatus"], "Data Link, Unsupported Request");
  EXPECT_EQ(errors["decoded"]["portCorrectableStatus"], "None");
  EXPECT_EQ(errors["record"]["portUncorrectableStatus"], 0x100010);
  EXPECT_EQ(errors["record"]["portIds"], "7a1e:1003");
  EXPECT_EQ(bist(file, "errors 1").status, 1);
  const std::string slow = directory.file("slow.conf", "[pci]\n[pci root]\nlink-status=0x2011\n");
  for (const char* const test : {"link", "errors", "prbs"}) {
    const Outcome outcome = bist(slow, test + std::string(" 0 --seconds 1 --json"));
    EXPECT_EQ(outcome.status, 1) << test;
    EXPECT_EQ(json::parse(outcome.output)[test]["result"], "root link down, status 0x2011");
  }

  const json report = json::parse(bist(file, "report --json").output);
  EXPECT_EQ(report["pcie"].size(), 4);
  EXPECT_EQ(report["failures"].size(), 3) << report["failures"];
  EXPECT_EQ(json::parse(bist("mmb", "link 0 --json").output)["link"]["result"], "no PCI system");
}

TEST(TalveroBist, SetsUpTheShimSwitchAndTheTransmitter) {
  const TemporaryDirectory directory;
  const std::string file = directory.file("x.conf", "[pci]\nshim=3\n[pci switch]\nstuck-b98=0x8\n");
  const Outcome shim = bist(file, "shim 3");
  EXPECT_EQ(shim.status, 0);
  EXPECT_THAT(shim.output, HasSubstr("Module Downstream: 5"));
  EXPECT_THAT(bist(file, "shim 1").output, HasSubstr("| Could not find device: 15"));
  const struct {
    const char* setting;
    int status;
  } cases[] = {{"--drive-level 7", 0},           {"--drive-level 8", 1}, {"--post-cursor 15", 0},
               {"--post-cursor 16", 2},          {"--quiet on", 0},      {"--quiet off", 0},
               {"--analog-loopback on", 0},      {"--quiet up", 2},      {"", 2},
               {"--quiet on --post-cursor 1", 2}};
  for (const auto& test : cases) {
    EXPECT_EQ(bist(file, std::string("tx 3 ") + test.setting).status, test.status) << test.setting;
  }
  EXPECT_EQ(bist(file, "tx 4 --quiet on").status, 2) << "no module given";
  EXPECT_EQ(bist(file, "tx 6 --quiet on").status, 2);
  EXPECT_EQ(bist(file, "shim 4").status, 2);

  const std::string trace = directory.path + "/trace";
  EXPECT_EQ(bist(file, "tx 1 --drive-level 5 --trace " + trace).status, 0);
  EXPECT_EQ(contentOf(trace), "port: 1\naddress: b98\nwrite: 5\n");
}

}  // namespace
