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

#include "bist/CommandLine.h"
#include "bist/Machine.h"
#include "bist/Session.h"
#include "bist/Supervisor.h"
#include "board/BoardId.h"

namespace {

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

}  // namespace

int main(int argc, char** argv) {
  holdStandardStreams();
  try {
    const Call call = readCall(argc, argv);
    return call.command == nullptr ? call.exitStatus
                                   : execute(*call.command, call.common, {{argv + 1, argv + argc}});
  } catch (const std::exception& error) {
    std::cerr << "talvero-bist: " << error.what() << "\n";
    return usageOrNoHardware;
  }
}
