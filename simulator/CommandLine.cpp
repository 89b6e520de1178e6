// SPDX-License-Identifier: MIT
#include "simulator/CommandLine.h"

#include <CLI/CLI.hpp>

#include "simulator/shared/Hardware.h"

std::optional<int> readCommandLine(int argc, const char* const* argv, Arguments& arguments) {
  CLI::App app(
      "Runs a program on a simulated instrument: whatever the program does to GPIO lines, udev\n"
      "devices, PCI configuration space and the platform's classes happens to the instrument that\n"
      "a description file describes instead of to this machine's own hardware. That holds for the\n"
      "programs that it starts too; those for which it cannot hold are refused.\n\n"
      "The exit status is the program's; 1 when the trace is not the expected one, 2 for a wrong\n"
      "description or call, 126 or 127 when the program cannot be run.",
      "talvero-sim");
  app.set_version_flag("--version", TALVERO_VERSION);
  app.add_option("--instrument", arguments.instrument,
                 "description file, or the name of a shipped one (see --list)")
      ->capture_default_str();
  app.add_flag("--fast", arguments.fast, "advance a virtual clock instead of sleeping");
  CLI::Option* const trace =
      app.add_option("--trace", arguments.trace, "write every access to this file, one line each");
  app.add_flag("--timestamps", arguments.timestamps,
               "begin each line with the instrument's time, in seconds, and the process")
      ->needs(trace);
  app.add_option("--expect", arguments.expect,
                 "compare with this file, a trace from before, and show the first difference");
  app.add_option(
      "--state", arguments.state,
      "write to this file, at the end, what has become of the instrument: a description");
  app.add_flag("--summary", arguments.summary,
               "say at the end what has been left behind: PRBS, loopback, power, clocks, outputs");
  app.add_option("--seed", arguments.seed, "repeat what happens by chance")
      ->check(CLI::NonNegativeNumber);
  app.add_option("--name", arguments.name, "the instrument's name, for talvero-sim set --on")
      ->check([](const std::string& name) {
        const bool isNumber = name.find_first_not_of("0123456789") == std::string::npos;
        return name.size() >= simulator::textSize ? "is too long"
               : isNumber                         ? "is a number, as processes have"
                                                  : "";
      });
  CLI::Option* const showFlag =
      app.add_flag("--show", arguments.show, "print the instrument's whole description, and end");
  app.add_flag_callback(
      "--list",
      [&arguments] {
        arguments.list = true;
        throw CLI::Success();
      },
      "list the shipped instruments");
  app.add_option("PROGRAM", arguments.program, "the program and its arguments, after --")
      ->option_text(" ")
      ->excludes(showFlag);
  app.positionals_at_end();
  CLI::App* const setting = app.add_subcommand("set", "change an instrument that runs");
  setting->add_option("--on", arguments.on,
                      "its name, or a process on it; otherwise the only one that runs");
  setting
      ->add_option("SETTING", arguments.settings,
                   "a group, a key of it and the new value, such as \"pci port1 link=down\"")
      ->required()
      ->option_text(" ");
  try {
    app.parse(argc, argv);
    arguments.set = setting->parsed();
    if (!arguments.set && !arguments.show && arguments.program.empty()) {
      throw CLI::RequiredError("PROGRAM");
    }
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error) == 0 ? 0 : usageError;
    return arguments.list && status == 0 ? std::nullopt : std::optional(status);
  }
  return std::nullopt;
}
