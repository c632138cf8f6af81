// SPDX-License-Identifier: Apache-2.0
// Compacting a process with 10,000 small anonymous mappings, measured beside a minimal loop that
// issues the same process_madvise calls on ranges prepared in advance. The phases run one after
// the other in each iteration so that all see the same machine, and are timed in CPU time of
// this thread (the kernel does the page-out work in the caller), which a busy machine disturbs
// less than the clock on the wall.
//   ratio      compaction / bare calls: the whole cost of walking the maps, collecting and batching
//   own_ratio  compaction / (bare calls + reading the maps file raw): what is left once the
//              kernel's cost of producing the maps text, which no reader avoids, is set aside
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <benchmark/benchmark.h>

#include "libs/kestrel/compact.h"
#include "libs/kestrel/maps.h"
#include "platform/syscalls.h"

namespace {

constexpr size_t kMappings = 10000;
constexpr double kTarget = 1.2;

// A child holding kMappings one-page read-write mappings, each written, kept apart by
// inaccessible pages. It lives until its pipe is closed.
class Child {
 public:
  Child() {
    int ready[2], hold[2];
    if (pipe2(ready, O_CLOEXEC) != 0 || pipe2(hold, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      close(hold[1]);
      const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
      char* area = static_cast<char*>(
          mmap(nullptr, 2 * kMappings * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
      if (area == MAP_FAILED) _exit(1);
      for (size_t i = 0; i < kMappings; i++) {
        char* at = area + 2 * i * page;
        if (mprotect(at, page, PROT_READ | PROT_WRITE) != 0) _exit(1);
        *at = 1;
      }
      char c = 'r';
      if (write(ready[1], &c, 1) != 1) _exit(1);
      while (read(hold[0], &c, 1) > 0) {
      }
      _exit(0);
    }
    close(ready[1]);
    close(hold[0]);
    hold_.reset(hold[1]);
    char c;
    if (pid_ < 0 || read(ready[0], &c, 1) != 1) pid_ = -1;
    close(ready[0]);
  }
  ~Child() {
    hold_.reset();
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  android::base::unique_fd hold_;
};

// The batches the command sends for the anon kind, prepared once.
std::vector<std::vector<iovec>> anon_batches(pid_t pid) {
  std::vector<std::vector<iovec>> batches;
  std::string buffer;
  tarvo::kestrel::maps::ForEachVmaFromFile(
      tarvo::kestrel::maps::MapsPath(pid),
      [&](const tarvo::kestrel::maps::Vma& vma) {
        if (getAnonPageAdvice(vma) != kAdvicePageout) return true;
        if (batches.empty() || batches.back().size() == kMaxBatchRanges) batches.emplace_back();
        batches.back().push_back({reinterpret_cast<void*>(vma.start), vma.end - vma.start});
        return true;
      },
      buffer);
  return batches;
}

void bare_calls(pid_t pid, const std::vector<std::vector<iovec>>& batches) {
  android::base::unique_fd pidfd(tarvo::kestrel::platform::pidfd_open(pid, 0));
  for (const auto& batch : batches) {
    benchmark::DoNotOptimize(tarvo::kestrel::platform::process_madvise(
        pidfd.get(), batch.data(), batch.size(), kAdvicePageout, 0));
  }
}

// Reads the maps file the plainest way, as the kernel's share of any walk.
void raw_maps_read(pid_t pid, std::string& buffer) {
  const std::string path = "/proc/" + std::to_string(pid) + "/maps";
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  buffer.resize(1 << 16);
  while (read(fd.get(), buffer.data(), buffer.size()) > 0) {
  }
}

double seconds() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

double g_ratio = 0;
double g_own_ratio = 0;

void BM_CompactVsBareCalls(benchmark::State& state) {
  Child child;
  if (child.pid() < 0) {
    state.SkipWithError("cannot start the child process");
    return;
  }
  const auto batches = anon_batches(child.pid());
  size_t ranges = 0;
  for (const auto& batch : batches) ranges += batch.size();

  // The command prints one line per process; keep it out of the report.
  fflush(stdout);
  android::base::unique_fd saved_stdout(dup(STDOUT_FILENO));
  android::base::unique_fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(null.get(), STDOUT_FILENO);

  std::string maps_text;
  double bare = 0, maps = 0, command = 0;
  for (auto _ : state) {
    const double t0 = seconds();
    bare_calls(child.pid(), batches);
    const double t1 = seconds();
    raw_maps_read(child.pid(), maps_text);
    const double t2 = seconds();
    compactProcess(child.pid(), getAnonPageAdvice);
    fflush(stdout);
    command += seconds() - t2;
    maps += t2 - t1;
    bare += t1 - t0;
  }

  dup2(saved_stdout.get(), STDOUT_FILENO);
  const double n = static_cast<double>(state.iterations());
  g_ratio = command / bare;
  g_own_ratio = command / (bare + maps);
  state.counters["ranges"] = static_cast<double>(ranges);
  state.counters["bare_ms"] = bare * 1e3 / n;
  state.counters["maps_ms"] = maps * 1e3 / n;
  state.counters["compact_ms"] = command * 1e3 / n;
  state.counters["ratio"] = g_ratio;
  state.counters["own_ratio"] = g_own_ratio;
}
BENCHMARK(BM_CompactVsBareCalls)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  if (g_ratio > 0) {
    printf("compact / bare process_madvise calls: %.3f (target below %.1f): %s\n", g_ratio,
           kTarget, g_ratio < kTarget ? "met" : "missed");
    printf("compact / (bare calls + raw maps read): %.3f (target below %.1f): %s\n",
           g_own_ratio, kTarget, g_own_ratio < kTarget ? "met" : "missed");
  }
  return 0;
}
