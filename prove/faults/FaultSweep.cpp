// SPDX-License-Identifier: MIT
// Lets each call that the library makes to the outside fail, once and for ever, in each of its
// operations, and prints what was tried and what did not hold.

#include "prove/faults/FaultSweep.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "prove/faults/OutsideCalls.h"
#include "simulator/instrument/DescriptionFile.h"
#include "simulator/instrument/SimulatedInstrument.h"

extern "C" int __lsan_do_recoverable_leak_check() __attribute__((weak));

namespace {

using Json = nlohmann::json;

constexpr std::size_t none = static_cast<std::size_t>(-1);
constexpr unsigned int longestSeconds = 20;  // that a try may take on the host's clock

/// What has come of a call in which something fails, and of the next one, in which nothing does.
struct Outcome {
  std::string end;  ///< how the process has ended, if not in order
  std::vector<std::string> calls = {};
  std::string said = {};
  std::string after = {};
  long handles = 0;
  long blocks = 0;
  long descriptors = 0;
  long milliseconds = 0;
  bool leaks = false;
};

long openDescriptors() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return std::distance(begin(files), end(files));
}

/// Makes the call; `said` receives its result, or "throws" and what, without taking memory.
void say(const Call& call, char (&said)[4096]) {
  try {
    std::snprintf(said, sizeof said, "%s", call().c_str());
  } catch (const std::exception& error) {
    std::snprintf(said, sizeof said, "throws %s", error.what());
  }
}

/// For a process of its own, since that remembers things.
Json tryCall(const Operation& operation, std::size_t failing, bool forever) {
  simulator::SimulatedInstrument instrument(
      simulator::readDescription(SOURCE_DIR "/simulator/instruments/full.conf"));
  const Call call = operation.prepare();
  char text[4096] = "";
  char after[4096] = "";
  const long descriptors = openDescriptors();
  const std::int64_t start = instrument.milliseconds();
  outside::watch(failing, forever);
  say(call, text);
  outside::stop();
  const std::int64_t end = instrument.milliseconds();
  say(call, after);
  return {{"calls", outside::calls()},
          {"said", text},
          {"after", after},
          {"handles", outside::kept().handles},
          {"blocks", outside::kept().blocks},
          {"descriptors", openDescriptors() - descriptors},
          {"milliseconds", end - start}};
}

std::string readAll(int pipe) {
  std::string text;
  char buffer[65536];
  for (ssize_t size = 0; (size = read(pipe, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(size));
  }
  return text;
}

/// Does in a new process what it says on standard output.
[[noreturn]] void sayInProcess(int pipe, const Operation& operation, std::size_t failing,
                               bool forever) {
  alarm(longestSeconds);
  std::cout.setstate(std::ios::badbit);  // what the library prints
  (void)!std::freopen("/dev/null", "w", stderr);
  Json said = tryCall(operation, failing, forever);
  said["leaks"] =
      __lsan_do_recoverable_leak_check != nullptr && __lsan_do_recoverable_leak_check() != 0;
  const std::string text = said.dump(-1, ' ', true, Json::error_handler_t::replace);
  (void)!write(pipe, text.data(), text.size());
  _exit(0);
}

/// A try that has begun.
struct Running {
  pid_t process = 0;
  int said = -1;
};

Running begin(const Operation& operation, std::size_t failing, bool forever) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    throw std::runtime_error("no pipe");
  }
  std::fflush(stdout);
  const pid_t process = fork();
  if (process == 0) {
    sayInProcess(ends[1], operation, failing, forever);
  }
  close(ends[1]);
  if (process == -1) {
    throw std::runtime_error("no process");
  }
  return {process, ends[0]};
}

Outcome outcomeOf(const Running& running) {
  const std::string text = readAll(running.said);
  close(running.said);
  int status = 0;
  waitpid(running.process, &status, 0);
  if (WIFSIGNALED(status)) {
    return {std::string("ends by ") + strsignal(WTERMSIG(status))};
  }
  if (WEXITSTATUS(status) != 0 || text.empty()) {
    return {"ends with " + std::to_string(WEXITSTATUS(status))};
  }
  const Json said = Json::parse(text);
  return {"",
          said["calls"],
          said["said"],
          said["after"],
          said["handles"],
          said["blocks"],
          said["descriptors"],
          said["milliseconds"],
          said["leaks"]};
}

/// A call that fails, alone or with all later ones.
struct Try {
  std::size_t number;
  bool forever;
};

/// Tries them all, as many at a time as there are processors, and tells of each in their order.
void tryAll(const Operation& operation, const std::vector<Try>& tries,
            const std::function<void(const Try&, const Outcome&)>& tell) {
  const std::size_t atATime = std::max(1U, std::thread::hardware_concurrency());
  std::deque<Running> running;
  std::size_t next = 0;
  for (const Try& oldest : tries) {
    while (next < tries.size() && running.size() < atATime) {
      running.push_back(begin(operation, tries[next].number, tries[next].forever));
      ++next;
    }
    tell(oldest, outcomeOf(running.front()));
    running.pop_front();
  }
}

bool matches(const std::string& text, const std::string& pattern) {
  return std::regex_match(text, std::regex(pattern));
}

/// What is wrong with an outcome where `failing` has failed; empty for nothing.
std::string fault(const Operation& operation, const Outcome& outcome, const Outcome& inOrder,
                  const std::string& failing) {
  constexpr long slack = 5;  // milliseconds, of the clock's and the sleeps' rounding
  const bool isTold = matches(failing, operation.failure.functions);
  const bool withoutMemory = outcome.said == "throws std::bad_alloc" && failing == "operator new";
  if (!outcome.end.empty()) {
    return outcome.end;
  }
  if (!withoutMemory && !matches(outcome.said, isTold ? operation.failure.said : operation.said)) {
    return "says \"" + outcome.said + "\"";
  }
  const long mayKeep = operation.remembers ? inOrder.blocks : 0;
  if (outcome.handles > 0 || outcome.blocks > mayKeep || outcome.descriptors > 0 || outcome.leaks) {
    return "keeps " + std::to_string(outcome.handles) + " handles, " +
           std::to_string(outcome.blocks) + " blocks, " + std::to_string(outcome.descriptors) +
           " descriptors";
  }
  if (outcome.milliseconds > operation.longest + slack) {
    return "takes " + std::to_string(outcome.milliseconds) + " ms";
  }
  const bool usable =
      operation.remembers ? matches(outcome.after, operation.said) : outcome.after == inOrder.after;
  return usable ? "" : "then says \"" + outcome.after + "\" instead of \"" + inOrder.after + "\"";
}

/// What is tried: of each function that is called, at most so many calls, the last one included.
std::vector<Try> triesOf(const std::vector<std::string>& calls, std::size_t mostOfAFunction) {
  std::map<std::string, std::vector<std::size_t>> byFunction;
  for (std::size_t number = 0; number < calls.size(); ++number) {
    std::vector<std::size_t>& numbers = byFunction[calls[number]];
    if (numbers.size() == mostOfAFunction) {
      numbers.pop_back();
    }
    numbers.push_back(number);
  }
  std::vector<Try> tries;
  for (const auto& [function, numbers] : byFunction) {
    for (const std::size_t number : numbers) {
      tries.push_back({number, false});
      tries.push_back({number, true});
    }
  }
  return tries;
}

struct Counts {
  std::size_t tried = 0;
  std::size_t held = 0;
};

Counts sweep(const Operation& operation, std::size_t mostOfAFunction) {
  const Outcome inOrder = outcomeOf(begin(operation, none, false));
  std::string faultInOrder = fault(operation, inOrder, inOrder, "none");
  if (faultInOrder.empty() && inOrder.said != operation.inOrder) {
    faultInOrder = "says \"" + inOrder.said + "\"";
  }
  Counts counts{1, faultInOrder.empty() ? 1U : 0U};
  std::string faults = faultInOrder.empty() ? "" : "  nothing fails: " + faultInOrder + "\n";
  tryAll(operation, triesOf(inOrder.calls, mostOfAFunction),
         [&](const Try& tried, const Outcome& outcome) {
           const std::string& function = inOrder.calls[tried.number];
           const std::string what = fault(operation, outcome, inOrder, function);
           ++counts.tried;
           counts.held += what.empty() ? 1 : 0;
           if (!what.empty()) {
             faults += "  " + function + ", call " + std::to_string(tried.number) +
                       (tried.forever ? " and its later ones" : "") + " fails: " + what + "\n";
           }
         });
  std::printf("%-58s %5zu %5zu %5zu\n%s", operation.name, inOrder.calls.size(), counts.tried,
              counts.held, faults.c_str());
  return counts;
}

}  // namespace

// fault-sweep [MOST_OF_A_FUNCTION [OPERATION]]
int main(int argc, char** argv) {
  const std::size_t mostOfAFunction = argc > 1 ? std::stoul(argv[1]) : none;
  std::printf("%-58s %5s %5s %5s\n", "operation", "calls", "tried", "held");
  Counts all;
  for (const auto& operations :
       {sysfsOperations(), boardOperations(), moduleOperations(), pcieOperations()}) {
    for (const Operation& operation : operations) {
      if (argc < 3 || std::strstr(operation.name, argv[2]) != nullptr) {
        const Counts counts = sweep(operation, mostOfAFunction);
        all.tried += counts.tried;
        all.held += counts.held;
      }
    }
  }
  std::printf("%zu failures tried, %zu held\n", all.tried, all.held);
  return all.tried > 0 && all.tried == all.held ? 0 : 1;
}
