// SPDX-License-Identifier: Apache-2.0
// What the smaps walk costs on top of reading the files: the walk over the smaps of every process
// on this machine against a baseline, in the same run, that only reads the same files into
// memory. A third line shows the plain getline and sscanf("%63s %n") form for comparison.
// Target: the walk takes at most 1.15 times as long as the reading alone.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android-base/unique_fd.h>
#include <benchmark/benchmark.h>

#include "libs/kestrel/proc-memstat.h"

using namespace tarvo::kestrel::memstat;

namespace {

struct Target {
  int pid;
  std::string path;
};

// Every /proc/<pid>/smaps this process may read; kernel threads have empty ones and stay in.
const std::vector<Target>& targets() {
  static const std::vector<Target> list = [] {
    std::vector<Target> out;
    DIR* dir = opendir("/proc");
    if (dir == nullptr) return out;
    while (dirent* e = readdir(dir)) {
      char* end = nullptr;
      long pid = strtol(e->d_name, &end, 10);
      if (*end != '\0' || pid <= 0) continue;
      std::string path = "/proc/" + std::string(e->d_name) + "/smaps";
      android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
      char byte;
      if (fd.get() >= 0 && read(fd.get(), &byte, 1) >= 0) out.push_back({static_cast<int>(pid), path});
    }
    closedir(dir);
    return out;
  }();
  return list;
}

// Reads the whole file into memory and nothing else.
void read_only(const Target& t, std::vector<char>& buf) {
  android::base::unique_fd fd(open(t.path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return;
  size_t bytes = 0;
  ssize_t n;
  while ((n = read(fd.get(), buf.data(), buf.size())) > 0) bytes += static_cast<size_t>(n);
  benchmark::DoNotOptimize(bytes);
}

void walk(const Target& t) {
  proc_ms ms = {};
  iterate_vma(t.pid, kStatSmapsGroup, &ms, t.path);
  benchmark::DoNotOptimize(ms);
}

// The straightforward form: stdio lines and sscanf on each, Pss lines summed.
void getline_sscanf(const Target& t) {
  FILE* f = fopen(t.path.c_str(), "re");
  if (f == nullptr) return;
  char* line = nullptr;
  size_t cap = 0;
  unsigned long long pss = 0;
  while (getline(&line, &cap, f) > 0) {
    char key[128] = {};
    int offset = 0;
    if (sscanf(line, "%63s %n", key, &offset) == 1 && strncmp(key, "Pss:", 4) == 0) {
      pss += strtoull(line + offset, nullptr, 10) / 4;
    }
  }
  free(line);
  fclose(f);
  benchmark::DoNotOptimize(pss);
}

// CPU time of this thread, the kernel's part included. The machine is shared: wall time would
// mostly measure other work, while reading and parsing cost exactly this.
double thread_ns() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e9 + static_cast<double>(ts.tv_nsec);
}

struct Totals {
  double read = 0, walk = 0, sscanf = 0;
};
Totals g_totals;

// All three on each file in turn, so that each sees the process in the same state (processes
// come and go and their maps change while the benchmark runs). The order rotates from file to
// file so that none always goes first.
void BM_WalkAgainstRead(benchmark::State& state) {
  std::vector<char> buf(64 * 1024);
  Totals totals;
  size_t turn = 0;
  for (auto _ : state) {
    for (const Target& t : targets()) {
      double* slots[3] = {&totals.read, &totals.walk, &totals.sscanf};
      for (int k = 0; k < 3; k++) {
        int which = static_cast<int>((turn + static_cast<size_t>(k)) % 3);
        double start = thread_ns();
        if (which == 0) read_only(t, buf);
        if (which == 1) walk(t);
        if (which == 2) getline_sscanf(t);
        *slots[which] += thread_ns() - start;
      }
      turn++;
    }
  }
  auto per_pass_ms = [&](double ns) { return ns / 1e6 / static_cast<double>(state.iterations()); };
  state.counters["read_ms"] = per_pass_ms(totals.read);
  state.counters["walk_ms"] = per_pass_ms(totals.walk);
  state.counters["sscanf_ms"] = per_pass_ms(totals.sscanf);
  state.counters["files"] = static_cast<double>(targets().size());
  g_totals = totals;
}

BENCHMARK(BM_WalkAgainstRead)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  if (g_totals.read > 0) {
    printf("\nsmaps files: %zu\n", targets().size());
    printf("walk / read:            %.3f (target at most 1.15)\n", g_totals.walk / g_totals.read);
    printf("getline+sscanf / read:  %.3f\n", g_totals.sscanf / g_totals.read);
  }
  benchmark::Shutdown();
  return 0;
}
