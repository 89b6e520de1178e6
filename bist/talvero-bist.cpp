// SPDX-License-Identifier: MIT
// talvero-bist: tests an instrument through the library and reports what it found.

#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
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
    &reportCommand, &boardCommand,    &slotsCommand, &powerCommand,  &topologyCommand, &linkCommand,
    &errorsCommand, &prbsCommand,     &soakCommand,  &marginCommand, &shimCommand,     &txCommand,
    &stopCommand,   &registerCommand, &listCommand,  &captureCommand};

enum ExitStatus { pass = 0, fail = 1, usageOrNoHardware = 2, signalled = 128 };

/// What the options of every command say.
struct Common {
  bool json = false;
  std::string traceFile;
  std::string logFile;
  std::string junitFile;
  std::string htmlFile;

  bool records() const {
    return json || !logFile.empty() || !junitFile.empty() || !htmlFile.empty();
  }
};

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

bool isColoured() {
  const char* const no = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) != 0 && (no == nullptr || *no == '\0');
}

/// The board that records are about.
Json boardJson() {
  const BoardId board;
  return {{"id", board.id}, {"description", board.idDescription}};
}

/// Adds an output into a file if one is named.
template <class FileOutputClass, class... Facts>
std::unique_ptr<Output> fileOutput(Session& session, const std::string& file,
                                   const Facts&... facts) {
  if (file.empty()) {
    return nullptr;
  }
  auto output = std::make_unique<FileOutputClass>(file, facts...);
  session.addOutput(*output);
  return output;
}

/// Makes events of the library's lines if there is a log.
void listenFor(const Output* log, LibraryOutput& output, const Events& events) {
  if (log != nullptr) {
    output.listen([events](const std::string& line) {
      events({{"event", "trace"}, {"text", line}});
    });
  }
}

int execute(const Command& command, const Common& common, RunFacts facts) {
  LibraryOutput output(common.traceFile);
  if (command.needs != Needs::nothing) {
    requireInstrument();
  }
  if (command.needs == Needs::spb) {
    requireSpb(command.name);
  }
  facts.informs = command.needs == Needs::nothing;
  if (common.records() && command.needs != Needs::nothing) {
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
  // The log first: it has what was going on when another one fails.
  const auto log = fileOutput<LogOutput>(session, common.logFile, facts);
  const auto junit = fileOutput<JUnitOutput>(session, common.junitFile);
  const auto html = fileOutput<HtmlOutput>(session, common.htmlFile);
  session.addOutput(common.json ? static_cast<Output&>(json) : text);
  const auto work = [&](const Events& events) {
    listenFor(log.get(), output, events);
    Report report(output, events);
    command.run(report);
    output.requireTrace();
  };
  const Events take = [&session](const Json& event) { session.take(event); };
  int signal = 0;
  try {
    listenFor(log.get(), output, take);
    signal = supervise(session, output, onTerminal ? &progress : nullptr, work);
  } catch (const std::exception& error) {
    session.abandon(error.what());
    throw;
  }
  bool passed = false;
  try {
    passed = session.finish(signal == SIGPIPE);
  } catch (const std::exception&) {
    undoAll(session, output);  // nobody has been told that it is switched
    throw;
  }
  return signal != 0 ? signalled + signal : passed ? pass : fail;
}

/// Gives standard streams that are closed a file that nothing can be written to, lest one of this
/// program's own files takes their place.
void holdStandardStreams() {
  int file = 0;
  do {
    file = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  } while (file >= 0 && file <= STDERR_FILENO);
  ::close(file);
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
  holdStandardStreams();
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

  Common common;
  app.add_flag("--json", common.json, "print one JSON object instead of text")
      ->disable_flag_override();
  for (const auto& [option, help, file] : fileOptions) {
    app.add_option(option, common.*file, help)->option_text("FILE");
  }
  addSpbOption(app);
  const std::string commonHelp = commonOptions(app).substr(1);  // begins with an empty line
  const Command* chosen = nullptr;
  for (const Command* const command : commands) {
    CLI::App& subcommand = *app.add_subcommand(command->name, command->help);
    subcommand.parse_complete_callback([&chosen, command] { chosen = command; });
    if (std::find(argv + 1, argv + argc, std::string(command->name)) != argv + argc) {
      command->addOptions(subcommand);  // of the others there is no need to know them
    }
    subcommand.footer(commonHelp + "\n" + exitStatus);
  }
  try {
    app.parse(argc, argv);
    requireOwnFiles(app);
    return execute(*chosen, common, {{argv + 1, argv + argc}});
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
