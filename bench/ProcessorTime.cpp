// SPDX-License-Identifier: MIT
#include "bench/ProcessorTime.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <limits>
#include <string>

namespace {

constexpr double secondsPerTurn = 0.01;

/// Keeps the least time of each call. What else the machine does only ever adds to a time, and for
/// longer than a turn: over many short turns the ratios of the least times stay within 0.02 from
/// run to run, on a busy machine too, where ratios of medians have moved by 0.1.
class LeastTimes : public benchmark::BenchmarkReporter {
 public:
  explicit LeastTimes(std::size_t calls) : times(calls, std::numeric_limits<double>::max()) {}

  bool ReportContext(const Context&) override { return true; }

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration) {
        double& least = times.at(std::stoul(run.run_name.function_name));
        least = std::min(least, run.GetAdjustedCPUTime());
      }
    }
  }

  std::vector<double> times;
};

void initializeOnce() {
  static const bool initialized = [] {
    std::string arguments[] = {"talvero-bench", "--benchmark_enable_random_interleaving=true"};
    char* pointers[] = {arguments[0].data(), arguments[1].data(), nullptr};
    int count = 2;
    benchmark::Initialize(&count, pointers);
    return true;
  }();
  benchmark::DoNotOptimize(initialized);
}

}  // namespace

std::vector<double> processorTimes(const std::vector<Call>& calls, int turns) {
  initializeOnce();
  benchmark::ClearRegisteredBenchmarks();
  for (std::size_t index = 0; index < calls.size(); ++index) {
    const Call call = calls[index];
    benchmark::RegisterBenchmark(std::to_string(index).c_str(),
                                 [call](benchmark::State& state) {
                                   while (state.KeepRunning()) {
                                     benchmark::DoNotOptimize(call());
                                   }
                                 })
        ->MinTime(secondsPerTurn)
        ->Repetitions(turns);
  }
  LeastTimes reporter(calls.size());
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.times;
}
