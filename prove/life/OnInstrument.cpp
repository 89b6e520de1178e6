// SPDX-License-Identifier: MIT
// on-instrument COMMAND [COUNT]: what life has done on an instrument. Prints what is wrong.

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <mutex>
#include <streambuf>
#include <string>
#include <thread>
#include <vector>

#include "board/BoardId.h"
#include "modules/ModuleI2CInfo.h"
#include "pcie/PCIeDiagnostics.h"
#include "prove/life/Everything.h"
#include "prove/life/Holdings.h"
#include "prove/life/Operations.h"
#include "sysfs/SysfsUtil.h"

namespace {

void wrong(const std::string& what) { std::fprintf(stderr, "%s\n", what.c_str()); }

void callOften(const Operation& operation, long count) {
  for (long time = 0; time < count; ++time) {
    if (!operation.call()) {
      wrong(std::string(operation.name) + ": wrong answer at call " + std::to_string(time + 1));
      return;
    }
  }
}

void requireNoGrowth(const Operation& operation, long count) {
  const long kept = operation.bare != nullptr ? keptBy(operation.bare) : 0;
  callOften(operation, std::min(count, 100L));
  heldNow();
  const std::vector<long> before = heldNow();
  callOften(operation, count);
  for (const std::string& what : grownSince(before, kept * count)) {
    wrong(std::string(operation.name) + ", " + std::to_string(count) + " times: " + what);
  }
}

/// In a process of its own, which ends after so many seconds.
void inChild(const char* name, unsigned int seconds, const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(seconds);
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0) {
    wrong(std::string(name) +
          (status == SIGALRM ? ": does not end" : ": ends with status " + std::to_string(status)));
  }
}

/// The library's lines go nowhere.
class NoLines : public std::streambuf {
 protected:
  int overflow(int character) override { return traits_type::not_eof(character); }
  std::streamsize xsputn(const char* /*text*/, std::streamsize size) override { return size; }
};

/// As many calls as a process has room for: some keep a descriptor each, within libpciaccess.
long mostCallsOf(const Operation& operation) {
  constexpr long most = 1000000;
  return operation.bare == nullptr ? most : std::min(most, sysconf(_SC_OPEN_MAX) / 2);
}

/// Each operation, its number of calls times `percent` of them, but a million at most.
void grow(long percent) {
  constexpr long least = 100;
  long fewest = LONG_MAX;
  long calls = 0;
  const std::vector<Operation> all = operations();
  for (const Operation& operation : all) {
    const long count =
        std::max(least, std::min(operation.calls * percent / 100, mostCallsOf(operation)));
    fewest = std::min(fewest, count);
    calls += count;
    inChild(operation.name, static_cast<unsigned int>(60 + percent),
            [&] { requireNoGrowth(operation, count); });
  }
  std::printf("%zu operations, %ld calls: %ld of each, up to a million of the fast ones\n",
              all.size(), calls, fewest);
}

/// The board that is described: straps, and one line for each bit of its number.
void see(long number) {
  const char* const variable = std::getenv("CROWD");
  const std::string crowd = variable == nullptr ? "." : variable;
  std::ofstream ready(crowd + "/ready-" + std::to_string(number));
  close(open((crowd + "/go").c_str(), O_RDONLY | O_CLOEXEC));  // waits for whoever writes to it
  for (int time = 0; time < 20; ++time) {
    const long id = BoardId().id;
    long lines = 0;
    for (int bit = 0; bit < 8; ++bit) {
      lines |= SysfsUtil().readGpioValue(100 + bit) ? 1L << bit : 0;
    }
    if (id != number % 64 || lines != number) {
      wrong("instrument " + std::to_string(number) + " sees board " + std::to_string(id) +
            " and lines " + std::to_string(lines));
      return;
    }
    SysfsUtil().setGpioDirectionOutput(std::to_string(120 + time).c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

/// Is inside of the instrument most of the time.
void registers(long count) {
  PCIeDiagnostics pcie;
  for (long time = 0; time < count; ++time) {
    pcie.getDevicePortBits(DownstreamPort5, 0xB98, 1, 0);
  }
}

void inThreads(long count, const std::function<void()>& work) {
  std::vector<std::thread> threads;
  for (long thread = 0; thread < count; ++thread) {
    threads.emplace_back(work);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void threads(long count) {
  for (long time = 0; time < count; ++time) {
    inThreads(8, [] {
      const std::string what = wrongOfEverything();
      if (!what.empty()) {
        wrong(what);
      }
    });
  }
}

/// Forks while other threads are inside of operations: the child does what they do.
void forks(long count) {
  std::atomic<bool> done{false};
  std::thread forking([&] {
    for (long time = 0; time < count; ++time) {
      const pid_t child = fork();
      if (child == 0) {
        alarm(20);
        _exit(wrongOfEachDoor().empty() ? 0 : 1);
      }
      int status = 0;
      waitpid(child, &status, 0);
      if (status != 0) {
        wrong(status == SIGALRM ? "a child waits for ever"
                                : "a child has ended with status " + std::to_string(status));
        break;
      }
    }
    done = true;
  });
  inThreads(3, [&] {
    while (!done) {
      {
        const std::lock_guard<std::mutex> lock(ModuleI2CInfo::cacheLock);
        ModuleI2CInfo::cache.clear();
      }
      wrongOfEachDoor();
    }
  });
  forking.join();
}

const struct {
  const char* name;
  void (*run)(long count);
} commands[] = {
    {"grow", grow}, {"see", see}, {"threads", threads}, {"forks", forks}, {"registers", registers}};

}  // namespace

int main(int count, char** arguments) {
  auto* const nowhere = new NoLines;  // which outlives the streams
  std::cout.rdbuf(nowhere);
  std::cerr.rdbuf(nowhere);
  for (const auto& command : commands) {
    if (count == 3 && arguments[1] == std::string(command.name)) {
      command.run(std::atol(arguments[2]));
      return 0;
    }
  }
  wrong("on-instrument grow|see|threads|forks|registers COUNT");
  return 2;
}
