// SPDX-License-Identifier: MIT
// talvero-sim and its program are killed at random moments, beside another instrument.

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "prove/life/Life.h"
#include "prove/life/Processes.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Random = std::mt19937_64;

/// The last one ends soon: there the moments are those of the instrument's own beginning and end.
constexpr struct Program {
  const char* name;
  const char* command;
} programs[] = {{"report", TALVERO_BIST " report --power-cycle"},
                {"threads", ON_INSTRUMENT " threads 1"},
                {"registers", ON_INSTRUMENT " registers 5000"},
                {"true", "true"}};
constexpr int deadlySignals[] = {SIGTERM, SIGINT, SIGKILL};

enum Victim { simulator, itsProgram, both, victimCount };
constexpr const char* victimNames[] = {"talvero-sim", "the program", "both"};

/// An instrument that runs all the time, and whose program drives a line as it is asked to.
class Beside {
 public:
  explicit Beside(const std::string& start)
      : ask(fifo("ask")),
        answer(fifo("answer")),
        process("exec 7<" + (pipes.path / "ask").string() + " 8>" +
                (pipes.path / "answer").string() + "; exec " + start +
                " -- sh -c 'cd /sys/class/gpio; echo 5 >export; echo out >gpio5/direction; "
                "while read -r level; do echo $level >gpio5/value; cat gpio5/value; done' "
                "<&7 >&8") {}

  ~Beside() {
    close(ask);
    close(answer);
  }

  Beside(const Beside&) = delete;
  Beside& operator=(const Beside&) = delete;

  /// Whether its line still takes a level.
  bool isWell() {
    level = level == '0' ? '1' : '0';
    const char question[] = {level, '\n'};
    char text[8] = "";
    pollfd ready{answer, POLLIN, 0};
    return write(ask, question, sizeof question) == sizeof question &&
           poll(&ready, 1, 20000) == 1 && read(answer, text, sizeof text) == 2 && text[0] == level;
  }

 private:
  int fifo(const char* name) const {
    mkfifo((pipes.path / name).c_str(), 0600);
    return open((pipes.path / name).c_str(), O_RDWR | O_CLOEXEC);
  }

  Directory pipes;
  int ask;
  int answer;
  char level = '0';
  Process process;
};

pid_t childOf(pid_t process) {
  const std::string number = std::to_string(process);
  return std::atoi(contentOf("/proc/" + number + "/task/" + number + "/children").c_str());
}

/// Returns whether talvero-sim itself was told to end.
bool killVictim(Victim victim, pid_t talveroSim, int signal) {
  const pid_t child = childOf(talveroSim);
  if (victim != simulator && child > 0) {
    kill(child, signal);
  }
  const bool isSimulator = victim != itsProgram || child == 0;
  if (isSimulator) {
    kill(talveroSim, signal);
  }
  return isSimulator;
}

/// One instrument after the other, killed.
class Killings {
 public:
  explicit Killings(std::uint64_t seed)
      : random(seed),
        sim("LIFE=" + directory.path.string() + " TMPDIR=" + directory.path.string() +
            " exec " TALVERO_SIM " --fast --trace " + (files.path / "trace").string()) {
    beside =
        std::make_unique<Beside>("env -u LIFE TMPDIR=" + directory.path.string() + " " TALVERO_SIM);
    if (!beside->isWell()) {
      throw std::runtime_error("the instrument beside does not begin");
    }
    untouched = namesIn(directory.path);
    for (const Program& program : programs) {
      const auto start = Clock::now();
      run(sim + " -- " + program.command);
      durations[program.name] = Clock::now() - start;
    }
  }

  /// What has been found wrong; empty for nothing.
  std::string killOne() {
    const Program& program = *pick(programs);
    const int signal = *pick(deadlySignals);
    const auto victim = static_cast<Victim>(random() % victimCount);
    const auto moment = std::chrono::microseconds(std::uniform_int_distribution<std::int64_t>(
        0, durations[program.name] / std::chrono::microseconds(1))(random));
    const std::string wrong = killAt(program.command, signal, victim, moment);
    removeLeft();
    std::ostringstream text;
    text << program.name << ", " << strsignal(signal) << " to " << victimNames[victim] << " after "
         << moment.count() << " us: " << wrong;
    return wrong.empty() ? "" : text.str();
  }

 private:
  std::string killAt(const std::string& command, int signal, Victim victim,
                     std::chrono::microseconds moment) {
    Process process(sim + " -- " + command);
    std::this_thread::sleep_for(moment);
    const bool mayLeave = killVictim(victim, process.id(), signal) && signal == SIGKILL;
    const Outcome outcome = process.outcome(std::chrono::seconds(30));
    if (outcome.status < 0) {
      return "does not end";
    }
    if (!allEnd()) {
      return "a process is left";
    }
    if (!mayLeave && namesIn(directory.path) != untouched) {
      return "talvero-sim, not killed, leaves" + left();
    }
    return wrongOfNext();
  }

  bool allEnd() const {
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    while (!processesWith("LIFE=" + directory.path.string()).empty()) {
      if (Clock::now() > deadline) {
        return false;
      }
      std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
  }

  std::string wrongOfNext() {
    const Outcome next = run(sim + " -- cat /sys/class/gpio/gpiochip0/base");
    if (next.status != 0 || next.output != "0\n" || !next.errors.empty()) {
      return "the next instrument ends with " + std::to_string(next.status) + ": " + next.errors;
    }
    if (namesIn(directory.path) != untouched) {
      return "after the next start there is" + left();
    }
    return beside->isWell() ? "" : "the instrument beside is not as it was";
  }

  /// What was not there before.
  std::string left() const {
    std::string names;
    for (const std::string& name : namesIn(directory.path)) {
      if (std::count(untouched.begin(), untouched.end(), name) == 0) {
        names += " " + name + " with";
        for (const std::string& file : namesIn(directory.path / name)) {
          names += " " + file;
        }
      }
    }
    return names;
  }

  /// So that it is not found again.
  void removeLeft() const {
    for (const std::string& file : namesIn(directory.path)) {
      if (std::count(untouched.begin(), untouched.end(), file) == 0) {
        std::filesystem::remove_all(directory.path / file);
      }
    }
  }

  template <typename Value, std::size_t count>
  const Value* pick(const Value (&values)[count]) {
    return &values[random() % count];
  }

  Random random;
  Directory directory;  // the instruments'
  Directory files;
  std::string sim;
  std::unique_ptr<Beside> beside;
  std::vector<std::string> untouched;
  std::map<std::string, Clock::duration> durations;
};

}  // namespace

Found kills(long count, std::uint64_t seed) {
  Found found{count, "talvero-sim, its program or both, by SIGTERM, SIGINT and SIGKILL", {}};
  Killings killings(seed);
  for (long time = 0; time < count; ++time) {
    const std::string wrong = killings.killOne();
    if (!wrong.empty()) {
      found.failures.push_back(wrong);
    }
  }
  return found;
}
