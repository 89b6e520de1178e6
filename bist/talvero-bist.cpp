// SPDX-License-Identifier: MIT
// talvero-bist: tests an instrument through the library and reports what it found.

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "bist/Command.h"
#include "bist/Machine.h"
#include "bist/Platform.h"
#include "bist/Session.h"
#include "bist/Supervisor.h"
#include "board/BoardId.h"

namespace {

/// The commands, in the order of --help.
constexpr const Command* commands[] = {
    &reportCommand, &boardCommand, &slotsCommand, &powerCommand, &topologyCommand, &linkCommand,
    &errorsCommand, &prbsCommand,  &shimCommand,  &txCommand,    &captureCommand};

enum ExitStatus { pass = 0, fail = 1, usageOrNoHardware = 2, signalled = 128 };

/// What the options of every command say.
struct Common {
  bool json = false;
  std::string traceFile;
};

bool isColoured() {
  const char* const no = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) != 0 && (no == nullptr || *no == '\0');
}

/// The board that records are about.
Json boardJson() {
  const BoardId board;
  return {{"id", board.id}, {"description", board.idDescription}};
}

int execute(const Command& command, const Common& common, RunFacts facts) {
  LibraryOutput output(common.traceFile);
  if (command.needs != Needs::nothing) {
    requireInstrument();
  }
  if (command.needs == Needs::spb) {
    requireSpb(command.name);
  }
  if (common.json && command.needs != Needs::nothing) {
    facts.board = boardJson();
  }
  Session session(facts);
  ProgressOutput progress;
  TextOutput text(output.own(), isColoured());
  JsonOutput json(output.own());
  const bool onTerminal = isatty(STDERR_FILENO) != 0;
  if (onTerminal) {
    session.addOutput(progress);
  }
  session.addOutput(common.json ? static_cast<Output&>(json) : text);
  const auto work = [&](const Events& events) {
    Report report(output, events);
    command.run(report);
    output.requireTrace();
  };
  int signal = 0;
  if (command.supervised) {
    signal = supervise(session, output, onTerminal ? &progress : nullptr, work);
  } else {
    work([&session](const Json& event) { session.take(event); });
  }
  const bool passed = session.finish(signal == SIGPIPE);
  return signal != 0 ? signalled + signal : passed ? pass : fail;
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

int main(int argc, char** argv) {
  CLI::App app(
      "Tests the hardware of the instrument and reports what it found. On a workstation, run it\n"
      "on a simulated instrument: talvero-sim -- talvero-bist report",
      "talvero-bist");
  const std::string exitStatus =
      "Exit status: 0 everything passed, 1 something failed or was not tested, 2 wrong call, no\n"
      "instrument or SPB here, no rights, or output or trace that cannot be written, 128 and the\n"
      "signal's number when interrupted.\n";
  app.footer(exitStatus);
  app.set_version_flag("--version", [] {
    return TALVERO_VERSION "\nplatform library: " + joined(platformLibraries());
  });
  app.require_subcommand(1);
  app.fallthrough();

  Common common;
  app.add_flag("--json", common.json, "print one JSON object instead of text")
      ->disable_flag_override();
  app.add_option("--trace", common.traceFile, "write the library's register trace to this file")
      ->option_text("FILE");
  addSpbOption(app);
  const std::string commonHelp = commonOptions(app).substr(1);  // begins with an empty line
  const Command* chosen = nullptr;
  for (const Command* const command : commands) {
    CLI::App& subcommand = *app.add_subcommand(command->name, command->help);
    subcommand.parse_complete_callback([&chosen, command] { chosen = command; });
    command->addOptions(subcommand);
    subcommand.footer(commonHelp + "\n" + exitStatus);
  }
  try {
    app.parse(argc, argv);
    return execute(*chosen, common, {{argv + 1, argv + argc}, {}});
  } catch (const CLI::ParseError& error) {
    const bool unknown = error.get_name() == "RequiredError" || error.get_name() == "ExtrasError";
    if (unknown && app.get_subcommands().empty()) {
      return refuse(app);
    }
    return app.exit(error) == 0 ? pass : usageOrNoHardware;
  } catch (const std::exception& error) {
    std::cerr << "talvero-bist: " << error.what() << "\n";
    return usageOrNoHardware;
  }
}
