// SPDX-License-Identifier: Apache-2.0
// Benchmarks of which the fastest of several repetitions counts. Repetitions of all of them take turns, so that what
// else the machine does meets none of them alone.
#ifndef KESAUDIO_BENCH_FASTEST_H
#define KESAUDIO_BENCH_FASTEST_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <utility>
#include <vector>

// Keeps the least value that a counter had in each benchmark.
class Fastest final : public benchmark::BenchmarkReporter {
 public:
  explicit Fastest(std::string theCounter) : counter(std::move(theCounter)) {}

  bool ReportContext(const Context& context) override {
    PrintBasicContext(&GetErrorStream(), context);
    return true;
  }
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      const auto found = run.counters.find(counter);
      if (run.run_type != Run::RT_Iteration || found == run.counters.end()) continue;
      const auto [entry, isNew] = least.emplace(run.run_name.function_name, found->second.value);
      entry->second = std::min<double>(entry->second, found->second.value);
    }
  }
  // NaN for a benchmark that was not run.
  double operator()(const std::string& label) const {
    const auto found = least.find(label);
    return found == least.end() ? std::nan("") : found->second;
  }

 private:
  std::string counter;
  std::map<std::string, double> least;
};

// Hands Google Benchmark the command line, which overrides these counts. False when there is something wrong with it.
inline bool initializeRepetitions(int argc, char** argv, const char* repetitions, const char* minSeconds) {
  std::string defaults[] = {std::string("--benchmark_repetitions=") + repetitions,
                            "--benchmark_enable_random_interleaving=true",
                            std::string("--benchmark_min_time=") + minSeconds};
  std::vector<char*> arguments = {argv[0]};
  for (std::string& argument : defaults) arguments.push_back(argument.data());
  arguments.insert(arguments.end(), argv + 1, argv + argc);  // the last one of a kind counts
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  return !benchmark::ReportUnrecognizedArguments(count, arguments.data());
}

#endif
