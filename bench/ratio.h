// SPDX-License-Identifier: Apache-2.0
// The console reporter of the benchmarks that print ratios: it shows the usual table and keeps
// each benchmark's time per iteration, so that two runs measured in the same process can be
// compared.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  // CPU time leaves out the waits of a machine shared with other work; a benchmark whose work
  // runs in child processes needs the wall-clock time, which counts theirs too.
  enum Clock { kCpuTime, kRealTime };
  explicit RatioReporter(Clock clock = kCpuTime) : clock_(clock) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0 || run.error_occurred) continue;
      std::string name = run.run_name.function_name;
      if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
      times_[name] = clock_ == kRealTime ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
    }
  }
  // Time per iteration, in the benchmark's unit, by benchmark name and arguments
  // ("BM_Print/1"; iteration counts and repetitions left out).
  const std::map<std::string, double>& times() const { return times_; }

 private:
  const Clock clock_;
  std::map<std::string, double> times_;
};
