// SPDX-License-Identifier: MIT
#include "bist/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <vector>

#include "bist/Machine.h"
#include "bist/Platform.h"
#include "bist/Report.h"

namespace {

/// The commands, in the order of --help.
constexpr const Command* commands[] = {
    &reportCommand, &boardCommand,    &slotsCommand, &powerCommand,  &topologyCommand, &linkCommand,
    &errorsCommand, &prbsCommand,     &soakCommand,  &marginCommand, &shimCommand,     &txCommand,
    &stopCommand,   &registerCommand, &listCommand,  &captureCommand};

/// The options that name a file to be written.
constexpr struct {
  const char* option;
  const char* help;
  std::string Common::*file;
} fileOptions[] = {
    {"--trace", "write the library's register trace to this file", &Common::traceFile},
    {"--log", "keep everything in this file, as it happens", &Common::logFile},
    {"--junit", "write the results to this file as JUnit XML", &Common::junitFile},
    {"--html", "write the results to this file as a page", &Common::htmlFile}};

/// The options of a call that name a file.
std::vector<const CLI::Option*> namedFiles(const CLI::App& app) {
  std::vector<const CLI::Option*> given;
  for (const CLI::App* const part :
       {&app, static_cast<const CLI::App*>(app.get_subcommands()[0])}) {
    for (const CLI::Option* const option : part->get_options()) {
      if (option->get_option_text() == "FILE" && option->count() != 0) {
        given.push_back(option);
      }
    }
  }
  return given;
}

/// Throws std::runtime_error when a file is named twice: one would destroy what the other one reads
/// or writes. An expectation may take the place of the one before.
void requireOwnFiles(const CLI::App& app) {
  const auto path = [](const CLI::Option* option) {
    return std::filesystem::weakly_canonical(option->results()[0]);
  };
  const std::vector<const CLI::Option*> files = namedFiles(app);
  for (std::size_t index = 0; index < files.size(); ++index) {
    for (std::size_t other = index + 1; other < files.size(); ++other) {
      const std::string first = files[index]->get_name();
      const std::string second = files[other]->get_name();
      const bool isDevice = path(files[index]).string().rfind("/dev/", 0) == 0;
      const bool renews = first == "--expect" && second == "--write-expectation";
      if (!isDevice && !renews && path(files[index]) == path(files[other])) {
        throw std::runtime_error(files[index]->results()[0] + ": named by both " + first + " and " +
                                 second);
      }
    }
  }
}

/// What every command takes, at the end of its own help.
std::string commonOptions(const CLI::App& app) {
  return CLI::Formatter().make_group(
      "Options of every command", false,
      app.get_options([](const CLI::Option* option) { return option->get_configurable(); }));
}

/// A call without a command, or with a word in its place that is none.
int refuse(const CLI::App& app) {
  const std::vector<std::string> words = app.remaining();
  std::vector<std::string> names;
  for (const Command* const command : commands) {
    names.emplace_back(command->name);
  }
  std::cerr << "talvero-bist: "
            << (words.empty() ? "no command given" : "\"" + words.front() + "\" is no command")
            << "; the commands are " << joined(names) << "\n";
  return usageOrNoHardware;
}

}  // namespace

Call readCall(int argc, const char* const* argv) {
  CLI::App app(
      "Tests the hardware of the instrument and reports what it found. On a workstation, run it\n"
      "on a simulated instrument: talvero-sim -- talvero-bist report",
      "talvero-bist");
  const std::string exitStatus =
      "Exit status: 0 everything passed, 1 something failed or was not tested, 2 wrong call, no\n"
      "instrument or SPB here, no rights, or output or a file that cannot be written, 128 and the\n"
      "signal's number when interrupted.\n";
  app.footer(exitStatus);
  app.set_version_flag("--version", [] {
    return TALVERO_VERSION "\nplatform library: " + joined(platformLibraries());
  });
  app.require_subcommand(1);
  app.fallthrough();

  Call call;
  app.add_flag("--json", call.common.json, "print one JSON object instead of text")
      ->disable_flag_override();
  for (const auto& [option, help, file] : fileOptions) {
    app.add_option(option, call.common.*file, help)->option_text("FILE");
  }
  addSpbOption(app);
  const std::string commonHelp = commonOptions(app).substr(1);  // begins with an empty line
  for (const Command* const command : commands) {
    CLI::App& subcommand = *app.add_subcommand(command->name, command->help);
    subcommand.parse_complete_callback([&call, command] { call.command = command; });
    if (std::find(argv + 1, argv + argc, std::string(command->name)) != argv + argc) {
      command->addOptions(subcommand);  // of the others there is no need to know them
    }
    subcommand.footer(commonHelp + "\n" + exitStatus);
  }
  try {
    app.parse(argc, argv);
    requireOwnFiles(app);
  } catch (const CLI::ParseError& error) {
    const bool unknown = error.get_name() == "RequiredError" || error.get_name() == "ExtrasError";
    const bool noCommand = unknown && app.get_subcommands().empty();
    call.exitStatus = noCommand ? refuse(app) : app.exit(error) == 0 ? pass : usageOrNoHardware;
    call.command = nullptr;
  }
  return call;
}
