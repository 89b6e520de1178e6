// SPDX-License-Identifier: MIT
// life: what becomes of the library, the simulated instrument and its programs under load and over
// a long life. Prints one line for each claim.

#include "prove/life/Life.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <thread>

#include "prove/life/Processes.h"

namespace {

namespace fs = std::filesystem;

/// Memory that is given back is free at once, so that what is taken can be counted.
constexpr char exact[] = "GLIBC_TUNABLES=glibc.malloc.tcache_count=0:glibc.malloc.mxfast=0 ";

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// What a program on an instrument has found wrong, one line each, and how it has ended.
std::vector<std::string> failuresOf(const Outcome& outcome) {
  std::vector<std::string> failures = linesOf(outcome.errors);
  if (outcome.status != 0 && failures.empty()) {
    failures.push_back(outcome.status < 0 ? "does not end"
                                          : "ends with status " + std::to_string(outcome.status));
  }
  return failures;
}

/// A command of the program on-instrument, on an instrument in virtual time.
Outcome onInstrument(const std::string& command, long count) {
  Process process(std::string(exact) + "exec " TALVERO_SIM " --fast -- " ON_INSTRUMENT " " +
                  command + " " + std::to_string(count));
  return process.outcome(std::chrono::minutes(3 + count / 10));
}

Found growth(long count, std::uint64_t /*seed*/) {
  const Outcome outcome = onInstrument("grow", count);
  return {std::atol(outcome.output.c_str()), linesOf(outcome.output + "\n").front(),
          failuresOf(outcome)};
}

/// A board and lines of its own.
std::string descriptionOf(long number) {
  std::string straps;
  std::string lines;
  for (int bit = 0; bit < 8; ++bit) {
    const bool set = (number >> bit & 1) != 0;
    straps = bit < 6 ? (set ? "1" : "0") + straps : straps;
    lines += std::to_string(100 + bit) + (set ? "=high\n" : "=low\n");
  }
  return "[board]\nstraps=" + straps + "\n[gpio]\n" + lines;
}

Found crowd(long count, std::uint64_t /*seed*/) {
  Found found{count, "instruments at once, each with a board and lines of its own", {}};
  const Directory directory;
  const fs::path ready = directory.path / "crowd";
  fs::create_directory(ready);
  mkfifo((ready / "go").c_str(), 0600);
  std::vector<std::unique_ptr<Process>> processes;
  for (long number = 0; number < count; ++number) {
    const fs::path description = directory.path / std::to_string(number);
    std::ofstream(description) << descriptionOf(number);
    processes.push_back(std::make_unique<Process>(
        "CROWD=" + ready.string() + " TMPDIR=" + directory.path.string() +
        " exec " TALVERO_SIM " --fast --instrument " + description.string() +
        " -- " ON_INSTRUMENT " see " + std::to_string(number)));
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (namesIn(ready).size() < processes.size() + 1) {
    if (std::chrono::steady_clock::now() > deadline) {
      found.failures.emplace_back("not all of them begin");
      return found;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  const int go = open((ready / "go").c_str(), O_RDWR | O_CLOEXEC);
  for (const auto& process : processes) {
    const std::vector<std::string> failures = failuresOf(process->outcome());
    found.failures.insert(found.failures.end(), failures.begin(), failures.end());
  }
  close(go);
  return found;
}

Found threads(long count, std::uint64_t /*seed*/) {
  return {count, "times 8 threads that construct everything",
          failuresOf(onInstrument("threads", count))};
}

Found forks(long count, std::uint64_t /*seed*/) {
  return {count, "forks while 3 threads are inside of operations; the child does the same",
          failuresOf(onInstrument("forks", count))};
}

Found reopening(long count, std::uint64_t /*seed*/) {
  Process process(std::string(exact) +
                  "exec " TALVERO_SIM " --fast -- " REOPEN " " STATICS_MODULE " " +
                  std::to_string(count));
  const Outcome outcome = process.outcome(std::chrono::minutes(20));
  Found found{count, "times dlopen and dlclose, with static objects that use it",
              failuresOf(outcome)};
  for (const std::string& line : linesOf(outcome.output)) {
    if (line != "constructor right" && line != "destructor right") {
      found.failures.push_back(line);
    }
  }
  return found;
}

Found statics(long count, std::uint64_t /*seed*/) {
  Found found{count, "programs that use it in static constructors and destructors", {}};
  for (long time = 0; time < count; ++time) {
    const Outcome outcome = run("exec " TALVERO_SIM " --fast -- " STATICS);
    if (outcome.status != 0 ||
        outcome.output != "constructor right\nmain right\ndestructor right\n") {
      found.failures.push_back(outcome.output + outcome.errors);
    }
  }
  return found;
}

/// `count` is what `life` tries; `least`, what it tries however small it is made.
const struct Claim {
  const char* name;
  const char* title;
  long count;
  long least;
  Found (*check)(long count, std::uint64_t seed);
} claims[] = {
    {"growth", "operations leave nothing behind", 100, 10, growth},
    {"crowd", "instruments do not mix", 100, 20, crowd},
    {"kills", "a kill leaves nothing, and others alone", 200, 20, kills},
    {"threads", "threads do not get into each other's way", 20, 2, threads},
    {"forks", "a fork is possible at any moment", 100, 20, forks},
    {"reopening", "the library can be opened and closed", 1000, 50, reopening},
    {"statics", "static objects may use the library", 20, 2, statics},
    {"disk", "a full disk ends in one line", 40, 10, fullDisks},
    {"places", "odd places work, or end in one line", 1, 1, places},
    {"user", "an ordinary user needs no rights", 1, 1, ordinaryUser},
};

bool holds(const Claim& claim, double times, std::uint64_t seed) {
  const auto start = std::chrono::steady_clock::now();
  const long count = std::max(claim.least, std::lround(static_cast<double>(claim.count) * times));
  const Found found = claim.check(count, seed);
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  const long failed = std::min(found.tried, static_cast<long>(found.failures.size()));
  std::printf("%-42s %7ld %7ld %8.1f  %s\n", claim.title, found.tried, found.tried - failed,
              seconds.count(), found.of.c_str());
  constexpr std::size_t shown = 10;
  for (std::size_t index = 0; index < std::min(shown, found.failures.size()); ++index) {
    std::printf("  %s\n", found.failures[index].c_str());
  }
  std::fflush(stdout);
  return found.failures.empty();
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> names;
  double times = 1;
  std::uint64_t seed = std::random_device()();
  CLI::App app("Load and life of the library and the simulated instrument, in numbers.", "life");
  app.add_option("CLAIM", names, "growth, crowd, kills, ...; all unless given");
  app.add_option("--times", times, "try so many times as much, or 0.1 times")
      ->check(CLI::PositiveNumber);
  app.add_flag_callback(
      "--quick", [&times] { times = 0.1; }, "the same as --times 0.1");
  app.add_option("--seed", seed, "repeat what happens by chance");
  CLI11_PARSE(app, argc, argv);
  std::printf("life --seed %llu\n%-42s %7s %7s %8s\n", static_cast<unsigned long long>(seed),
              "claim", "tried", "held", "seconds");
  bool all = true;
  bool any = false;
  for (const Claim& claim : claims) {
    if (names.empty() || std::count(names.begin(), names.end(), claim.name) > 0) {
      all = holds(claim, times, seed) && all;
      any = true;
    }
  }
  if (!any) {
    std::cerr << "life: no such claim\n";
  }
  return all && any ? 0 : 1;
}
