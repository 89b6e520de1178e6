// talvero-bench: what the library's operations cost beside the calls that they cannot do without.

#include <linux/magic.h>
#include <sys/vfs.h>

#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

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

void printMeasured(const Operation& operation) {
  std::vector<Call> calls = {operation.library};
  if (operation.floor != nullptr) {
    calls.push_back(operation.floor);
  }
  for (const Call call : calls) {
    requireWork(operation, call);
  }
  const std::vector<double> times = processorTimes(calls);
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

}  // namespace

int main() {
  if (isOwnSysfs()) {
    std::cerr << "talvero-bench: /sys is this machine's own, which must not be touched: "
                 "use bench/run.sh\n";
    return 1;
  }
  try {
    printRow({"operation", "library ns", "floor ns", "ratio", "target", "verdict", "system calls"});
    for (const auto& operations : {sysfsOperations(), boardOperations()}) {
      for (const Operation& operation : operations) {
        printMeasured(operation);
      }
    }
  } catch (const std::exception& error) {
    std::cerr << "talvero-bench: " << error.what() << "\n";
    return 1;
  }
}
