// SPDX-License-Identifier: MIT
// talvero-sim: runs a program on a simulated instrument.

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "simulator/CommandLine.h"
#include "simulator/instrument/ExpectedTrace.h"
#include "simulator/instrument/HostHardware.h"
#include "simulator/instrument/LeftBehind.h"
#include "simulator/instrument/RunningInstruments.h"
#include "simulator/instrument/SimulatedInstrument.h"
#include "simulator/shared/ProgramFile.h"

namespace {

namespace fs = std::filesystem;

constexpr int traceDiffers = 1;
constexpr int notExecutable = 126;
constexpr int notFound = 127;

// Beside the program where it was built, or where it was installed.
fs::path instrumentsDirectory() {
  const fs::path directory = fs::read_symlink("/proc/self/exe").parent_path();
  const fs::path built = directory / "instruments";
  return fs::exists(built) ? built : directory.parent_path() / "share/talvero-sim/instruments";
}

std::string descriptionFile(const std::string& instrument) {
  const fs::path shipped = instrumentsDirectory() / (instrument + ".conf");
  if (fs::exists(shipped)) {
    return shipped.string();
  }
  if (instrument.find('/') == std::string::npos && !fs::exists(instrument)) {
    throw std::runtime_error(instrument + ": neither a file nor a shipped instrument (see --list)");
  }
  return instrument;
}

void listInstruments() {
  std::vector<fs::path> files(fs::directory_iterator(instrumentsDirectory()), {});
  std::sort(files.begin(), files.end());
  for (const fs::path& file : files) {
    std::string title;
    std::getline(std::ifstream(file), title);
    title.erase(0, title.find_first_not_of("# "));
    std::cout << file.stem().string() << "\t" << title << "\n";
  }
}

std::string findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) {
    return name;
  }
  const char* variable = std::getenv("PATH");
  std::istringstream path(variable == nullptr ? "/bin:/usr/bin" : variable);
  for (std::string directory; std::getline(path, directory, ':');) {
    std::string candidate = (fs::path(directory) / name).string();
    if (access(candidate.c_str(), X_OK) == 0 && !fs::is_directory(candidate)) {
      return candidate;
    }
  }
  return "";
}

std::vector<char*> pointersTo(std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  for (std::string& argument : arguments) {
    pointers.push_back(argument.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

/// What talvero-sim changes for itself, as its caller had it, which is how a program finds it.
struct Signals {
  sigset_t blocked;
  sighandler_t childEnded;
};

[[noreturn]] void becomeProgram(const std::string& path, char* const* arguments, pid_t parent,
                                const Signals& before) {
  simulator::hideHostHardware();
  // Nobody would remove the instrument after a program that outlives talvero-sim.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) {
    _exit(notExecutable);
  }
  std::signal(SIGCHLD, before.childEnded);
  sigprocmask(SIG_SETMASK, &before.blocked, nullptr);
  execvp(path.c_str(), arguments);
  const int error = errno;
  std::cerr << "talvero-sim: cannot run " << path << ": " << std::strerror(error) << "\n";
  _exit(error == ENOENT ? notFound : notExecutable);
}

/// Passes signals on to the program until it ends, and lets the instrument change; returns the
/// program's wait status.
int waitForProgram(pid_t program, const sigset_t& signals,
                   simulator::SimulatedInstrument& instrument) {
  while (true) {
    siginfo_t info{};
    const std::chrono::nanoseconds wait = instrument.makeChanges();
    const timespec time{wait / std::chrono::seconds(1), (wait % std::chrono::seconds(1)).count()};
    if (sigtimedwait(&signals, &info, &time) < 0) {
      continue;
    }
    // The terminal has sent its signals to the program already.
    if (info.si_signo != SIGCHLD && info.si_code != SI_KERNEL) {
      kill(program, info.si_signo);
    }
    int status = 0;
    if (waitpid(program, &status, WNOHANG) == program) {
      return status;
    }
  }
}

/// Where the trace goes: nowhere if nobody asks for it, to the instrument's own file if only
/// --expect does.
std::string traceFile(const Arguments& arguments) {
  return arguments.trace.value_or(arguments.expect ? "" : "/dev/null");
}

/// Throws unless the trace can be read again, which --expect does in the end.
void requireReadableTrace(const Arguments& arguments) {
  if (arguments.expect && arguments.trace &&
      (!fs::is_regular_file(*arguments.trace) || access(arguments.trace->c_str(), R_OK) != 0)) {
    throw std::runtime_error(*arguments.trace + ": --expect cannot read this trace again");
  }
}

/// Ends as the program has ended.
int passOn(int status, const sigset_t& signals) {
  if (!WIFSIGNALED(status)) {
    return WEXITSTATUS(status);
  }
  const rlimit noCore{0, 0};  // the program has left one if it was meant to
  setrlimit(RLIMIT_CORE, &noCore);
  const int signal = WTERMSIG(status);
  std::signal(signal, SIG_DFL);
  sigprocmask(SIG_SETMASK, &signals, nullptr);
  raise(signal);
  return 128 + signal;
}

/// The seed of what happens by chance; says which it is where the caller has not chosen it.
std::uint64_t seedOf(const Arguments& arguments, const simulator::Hardware& hardware) {
  const bool byChance =
      std::any_of(hardware.failures, hardware.failures + hardware.failuresUsed,
                  [](const auto& failure) { return failure.rate != failure.certain; });
  const std::uint64_t seed = arguments.seed ? *arguments.seed : std::random_device()();
  if (byChance && !arguments.seed) {
    std::cerr << "talvero-sim: --seed " << seed << " repeats this run\n";
  }
  return seed;
}

/// Opens the file for what becomes of the instrument, without changing it yet.
void requireWritable(const std::string& file) {
  if (!file.empty() && !std::ofstream(file, std::ios::app)) {
    throw std::runtime_error(file + ": cannot be written");
  }
}

/// Writes what has become of the instrument, and says what was left behind, as far as asked for.
void tellEnd(const Arguments& arguments, const simulator::SimulatedInstrument& instrument,
             const simulator::Hardware& before) {
  const auto after = std::make_unique<simulator::Hardware>(instrument.hardware());
  if (!arguments.state.empty()) {
    std::ofstream file(arguments.state);
    file << simulator::descriptionFile({arguments.instrument + ", as it was left"}, *after);
    if (!file.flush()) {
      throw std::runtime_error(arguments.state + ": cannot be written");
    }
  }
  if (arguments.summary) {
    const std::vector<std::string> left = simulator::leftBehind(before, *after);
    for (const std::string& words : left) {
      std::cerr << "talvero-sim: left behind: " << words << "\n";
    }
    std::cerr << (left.empty() ? "talvero-sim: nothing left behind\n" : "");
    for (const std::string& words : simulator::neverMet(*after)) {
      std::cerr << "talvero-sim: never met: " << words << "\n";
    }
  }
}

int run(Arguments& arguments) {
  const std::string program = findProgram(arguments.program.front());
  if (program.empty()) {
    std::cerr << "talvero-sim: \"" << arguments.program.front() << "\": not found\n";
    return notFound;
  }
  if (const char* const reason = simulator::reasonAgainst(program.c_str())) {
    std::cerr << "talvero-sim: " << program << " " << reason
              << ": it would reach this machine's own hardware\n";
    return usageError;
  }
  std::optional<simulator::ExpectedTrace> expected;
  if (arguments.expect) {
    expected.emplace(*arguments.expect);
  }
  const auto hardware = std::make_unique<simulator::Hardware>(
      simulator::readDescription(descriptionFile(arguments.instrument)));
  sigset_t passed;
  sigemptyset(&passed);
  for (const int signal : {SIGCHLD, SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2}) {
    sigaddset(&passed, signal);
  }
  Signals before{};
  before.childEnded = std::signal(SIGCHLD, SIG_DFL);  // an ignored one would not tell of its end
  sigprocmask(SIG_BLOCK, &passed, &before.blocked);
  int status = 0;
  std::string difference;
  {
    simulator::removeAbandonedInstruments();
    requireWritable(arguments.state);
    simulator::SimulatedInstrument instrument(
        *hardware, {arguments.fast, traceFile(arguments), arguments.name, arguments.timestamps,
                    seedOf(arguments, *hardware)});
    *hardware = instrument.hardware();
    requireReadableTrace(arguments);
    instrument.setProgramEnvironment();
    const std::vector<char*> pointers = pointersTo(arguments.program);
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child < 0) {
      throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
      becomeProgram(program, pointers.data(), self, before);
    }
    status = waitForProgram(child, passed, instrument);
    tellEnd(arguments, instrument, *hardware);
    instrument.requireTrace();
    if (expected) {
      difference = expected->differenceFrom(instrument.takeTrace());
    }
  }
  if (!difference.empty()) {
    std::cerr << "talvero-sim: " << difference;
    return traceDiffers;
  }
  return passOn(status, before.blocked);
}

void show(const Arguments& arguments) {
  const auto hardware = std::make_unique<simulator::Hardware>(
      simulator::readDescription(descriptionFile(arguments.instrument)));
  std::cout << simulator::describe(*hardware);
}

void set(const Arguments& arguments) {
  simulator::attachRunning(arguments.on);
  simulator::setKeys(arguments.settings);
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  if (const std::optional<int> status = readCommandLine(argc, argv, arguments)) {
    return *status;
  }
  try {
    if (!arguments.list && !arguments.set && !arguments.show) {
      return run(arguments);
    }
    arguments.list ? listInstruments() : arguments.set ? set(arguments) : show(arguments);
    return 0;
  } catch (const std::exception& error) {
    std::cerr << "talvero-sim: " << error.what() << "\n";
    return usageError;
  }
}
