// SPDX-License-Identifier: Apache-2.0
// The console reporter of the benchmarks that print ratios: it shows the usual table and keeps
// each benchmark's CPU time per iteration (CPU time leaves out the waits of a machine shared
// with other work), so that two runs measured in the same process can be compared.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Iteration && run.iterations > 0) {
        ns_[run.benchmark_name()] = run.GetAdjustedCPUTime();
      }
    }
  }
  // CPU nanoseconds per iteration by benchmark name.
  const std::map<std::string, double>& ns() const { return ns_; }

 private:
  std::map<std::string, double> ns_;
};
