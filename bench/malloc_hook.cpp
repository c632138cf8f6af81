// SPDX-License-Identifier: Apache-2.0
// What the allocator hook costs a program: malloc and free per second with recording off and
// on, in the same run, through the hook's own malloc (the whole hook is linked into this
// program). The ratio of the two is the slowdown a recorded process sees on allocation.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "hook/hook.h"

namespace {

// A program's steady state: 1024 live blocks of 16 to 4 KiB, each call freeing the oldest and
// allocating a new one, a few calls deep.
__attribute__((noinline)) void* allocate(size_t size, int depth) {
  void* p = depth == 0 ? malloc(size) : allocate(size, depth - 1);
  benchmark::DoNotOptimize(p);
  return p;
}

void BM_MallocFree(benchmark::State& state) {
  const bool recording = state.range(0) != 0;
  kestrel_hook::handle_request(recording ? kestrel_hook::kEnable : kestrel_hook::kDisable);
  std::vector<void*> live(1024, nullptr);
  size_t i = 0;
  unsigned seed = 1;
  for (auto _ : state) {
    seed = seed * 1103515245u + 12345u;
    void*& slot = live[i++ % live.size()];
    free(slot);
    slot = allocate(16 + seed % 4096, static_cast<int>(seed >> 29));
  }
  for (void* p : live) free(p);
  kestrel_hook::handle_request(kestrel_hook::kDisable);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_MallocFree)->ArgName("recording")->Arg(0)->Arg(1);

void print_ratio(const std::map<std::string, double>& ns) {
  auto off = ns.find("BM_MallocFree/recording:0");
  auto on = ns.find("BM_MallocFree/recording:1");
  if (off == ns.end() || on == ns.end() || off->second <= 0) return;
  printf("allocations per second, recording off / on: %.2fx (%.0f vs %.0f per second)\n",
         on->second / off->second, 1e9 / off->second, 1e9 / on->second);
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  print_ratio(reporter.times());
  benchmark::Shutdown();
  return 0;
}
