// SPDX-License-Identifier: MIT
// talvero-bist: tests an instrument through the library and reports what it found.

#include <cerrno>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>

#include "bist/Command.h"
#include "sysfs/SysfsUtil.h"

namespace {

/// The commands, in the order of --help.
constexpr const Command* commands[] = {
    &reportCommand, &boardCommand,  &slotsCommand, &powerCommand, &topologyCommand,
    &linkCommand,   &errorsCommand, &prbsCommand,  &shimCommand,  &txCommand};

enum ExitStatus { pass = 0, fail = 1, usageOrNoHardware = 2 };

// Any line will do; a BoardId exports this one as well.
bool instrumentIsHere() { return SysfsUtil().exportGpio("167"); }

int execute(const Command& command, bool json, const std::string& traceFile) {
  errno = 0;
  if (!instrumentIsHere()) {
    std::cerr << "talvero-bist: no instrument here: /sys/class/gpio/export cannot be opened ("
              << std::strerror(errno)
              << "). On a workstation, run it on a simulated one: talvero-sim -- talvero-bist "
                 "report\n";
    return usageOrNoHardware;
  }
  LibraryOutput output(traceFile);
  Report report(output);
  command.run(report);
  json ? report.printJson(output.own()) : report.printText(output.own());
  if (!output.own().flush()) {
    throw std::runtime_error("standard output cannot be written");
  }
  return report.passed() ? pass : fail;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(
      "Tests the hardware of the instrument and reports what it found. On a workstation, run it\n"
      "on a simulated instrument: talvero-sim -- talvero-bist report",
      "talvero-bist");
  app.footer(
      "Exit status: 0 everything passed, 1 something failed, 2 wrong call or no instrument.\n");
  app.set_version_flag("--version", TALVERO_VERSION);
  app.require_subcommand(1);
  app.fallthrough();

  bool json = false;
  std::string traceFile;
  app.add_flag("--json", json, "print one JSON object instead of text");
  app.add_option("--trace", traceFile, "write the library's register trace to this file")
      ->option_text("FILE");
  const Command* chosen = nullptr;
  for (const Command* const command : commands) {
    CLI::App& subcommand = *app.add_subcommand(command->name, command->help);
    subcommand.parse_complete_callback([&chosen, command] { chosen = command; });
    command->addOptions(subcommand);
  }
  try {
    app.parse(argc, argv);
    return execute(*chosen, json, traceFile);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? pass : usageOrNoHardware;
  } catch (const std::exception& error) {
    std::cerr << "talvero-bist: " << error.what() << "\n";
    return usageOrNoHardware;
  }
}
