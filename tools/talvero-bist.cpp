// talvero-bist: tests an instrument through the library and reports what it found.

#include <CLI/CLI.hpp>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include "sysfs/SysfsUtil.h"
#include "tools/LibraryOutput.h"
#include "tools/Report.h"
#include "tools/Sections.h"

namespace {

using report::Section;
using Commands = std::vector<std::function<Section()>>;

enum ExitStatus { pass = 0, fail = 1, usageOrNoHardware = 2 };

// Any line will do; a BoardId exports this one as well.
bool instrumentIsHere() { return SysfsUtil().exportGpio("167"); }

int execute(const Commands& commands, bool json, const std::string& traceFile) {
  if (!instrumentIsHere()) {
    std::cerr << "talvero-bist: no instrument here: /sys/class/gpio/export cannot be opened. On a "
                 "workstation, run it on a simulated one: talvero-sim -- talvero-bist report\n";
    return usageOrNoHardware;
  }
  LibraryOutput output(traceFile);
  std::vector<Section> sections;
  for (const auto& command : commands) {
    sections.push_back(command());
    sections.back().messages = output.takeMessages();
  }
  (json ? report::printJson : report::printText)(output.own(), sections);
  return report::passed(sections) ? pass : fail;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Tests the hardware of the instrument and reports what it found. On a workstation, run it\n"
      "on a simulated instrument: talvero-sim -- talvero-bist report",
      "talvero-bist");
  app.footer(
      "Exit status: 0 everything passed, 1 something failed, 2 wrong call or no instrument.");
  app.set_version_flag("--version", TALVERO_VERSION);
  app.require_subcommand(1);
  app.fallthrough();

  bool json = false;
  std::string traceFile;
  app.add_flag("--json", json, "print one JSON object instead of text");
  app.add_option("--trace", traceFile, "write the library's register trace to this file");

  Commands commands;
  app.add_subcommand("report", "test everything and report it")->callback([&] {
    commands = {boardSection};
  });
  app.add_subcommand("board", "say which board this is and which boards are attached to it")
      ->callback([&] { commands = {boardSection}; });
  try {
    app.parse(argc, argv);
    return execute(commands, json, traceFile);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? pass : usageOrNoHardware;
  } catch (const std::exception& error) {
    std::cerr << "talvero-bist: " << error.what() << "\n";
    return usageOrNoHardware;
  }
}
