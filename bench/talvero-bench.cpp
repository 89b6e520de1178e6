// SPDX-License-Identifier: MIT
// talvero-bench: what the library's operations cost beside the calls that they cannot do without.

#include <linux/magic.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "bench/Growth.h"
#include "bench/I2cDevices.h"
#include "bench/Operation.h"
#include "bench/ProcessorTime.h"
#include "bench/SystemCalls.h"

namespace {

bool isOwnSysfs() {
  struct statfs filesystem {};
  return statfs("/sys", &filesystem) != 0 || filesystem.f_type != TMPFS_MAGIC;
}

/// The times of a call that does not do its work would mean nothing.
void requireWork(const Operation& operation, Call call) {
  if (!call()) {
    throw std::runtime_error(std::string(operation.name) + ": wrong answer");
  }
}

std::string format(const char* pattern, double value) {
  char text[32];
  std::snprintf(text, sizeof text, pattern, value);
  return text;
}

std::string count(Call call) {
  const std::optional<long> calls = systemCalls(call);
  return calls ? std::to_string(*calls) : "?";
}

void printRow(const std::vector<std::string>& cells) {
  constexpr int widths[] = {-38, 12, 12, 8, 8, 8, 18};
  for (std::size_t column = 0; column < cells.size(); ++column) {
    std::printf("%*s", widths[column], cells[column].c_str());
  }
  std::puts("");
  std::fflush(stdout);
}

constexpr int manyTurns = 61;

void printMeasured(const Operation& operation, int turns = manyTurns) {
  std::vector<Call> calls = {operation.library};
  if (operation.floor != nullptr) {
    calls.push_back(operation.floor);
  }
  for (const Call call : calls) {
    requireWork(operation, call);
  }
  const std::vector<double> times = processorTimes(calls, turns);
  if (operation.floor == nullptr) {
    printRow({operation.name, format("%.0f", times[0]), "-", "-", "-", "-",
              count(operation.library) + " / -"});
    return;
  }
  const double ratio = times[0] / times[1];
  const bool targeted = operation.target > 0;
  printRow({operation.name, format("%.0f", times[0]), format("%.0f", times[1]),
            format("%.3f", ratio), targeted ? format("%.2f", operation.target) : "-",
            !targeted                   ? "-"
            : ratio <= operation.target ? "met"
                                        : "missed",
            count(operation.library) + " / " + count(operation.floor)});
}

void printBackplane() {
  for (const int devices : {6, 60, 600, 6000}) {
    setI2cDeviceCount(devices);
    std::printf("with %d I2C devices:\n", devices);
    for (const Operation& operation : backplaneOperations()) {
      printMeasured(operation, devices < 600 ? manyTurns : 5);
    }
  }
}

/// Each measurement has a process of its own: every initialisation of libpciaccess leaks a
/// descriptor on x86, and a measurement makes thousands.
template <typename Measurement>
void inChild(Measurement measurement) {
  std::fflush(stdout);
  const pid_t child = fork();
  if (child == 0) {
    measurement();
    std::exit(0);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error("a measurement failed");
  }
}

void printGrowth() {
  constexpr int objects = 10000;
  const struct {
    const char* name;
    Call call;
  } rows[] = {{"PCIeDiagnostics objects", constructDiagnostics},
              {"calls of pci_system_init", initialiseLibpciaccess}};
  for (const auto& row : rows) {
    inChild([&row] {
      row.call();  // what is kept once for all
      const Usage before = usageNow();
      for (int object = 0; object < objects; ++object) {
        row.call();
      }
      const Usage after = usageNow();
      std::printf("%d %s: %ld bytes, %ld descriptors more\n", objects, row.name,
                  after.bytes - before.bytes, after.descriptors - before.descriptors);
    });
  }
}

/// The library's lines are formatted and then dropped.
class NullBuffer : public std::streambuf {
 protected:
  int overflow(int character) override { return traits_type::not_eof(character); }
  std::streamsize xsputn(const char* /*text*/, std::streamsize size) override { return size; }
};

void discardConsoleLines() {
  static NullBuffer nowhere;
  std::cout.rdbuf(&nowhere);
}

}  // namespace

int main() {
  if (isOwnSysfs()) {
    std::cerr << "talvero-bench: /sys is this machine's own, which must not be touched: "
                 "use bench/run.sh\n";
    return 1;
  }
  try {
    printRow({"operation", "library ns", "floor ns", "ratio", "target", "verdict", "system calls"});
    discardConsoleLines();
    for (const auto& operations :
         {sysfsOperations(), boardOperations(), pcieOperations(), moduleOperations()}) {
      for (const Operation& operation : operations) {
        inChild([&operation] { printMeasured(operation); });
      }
    }
    printGrowth();
    printBackplane();
  } catch (const std::exception& error) {
    std::cerr << "talvero-bench: " << error.what() << "\n";
    return 1;
  }
}
