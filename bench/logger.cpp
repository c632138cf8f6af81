// SPDX-License-Identifier: Apache-2.0
// Records per second through the log printer onto /dev/null, beside a bare loop that writes the
// same raw records with one write each. The printer's cost over the write it cannot avoid is
// reported as the ratio of the two; the goal is at most 2.
#include "libs/kestrel/logger.h"

#include "bench/ratio.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

using namespace tarvo::kestrel::logger;

namespace {

// A stream shaped like a busy device's: a few processes and tags, messages of 20 to 140
// characters, one in eight on two lines, a hundred records per second.
std::vector<RecordBuffer> make_records() {
  static const char* const kTags[] = {"kestrel", "lmkd", "ActivityManager", "mm", "malloc_debug"};
  std::vector<RecordBuffer> records(1024);
  unsigned seed = 7;
  for (size_t i = 0; i < records.size(); ++i) {
    seed = seed * 1103515245 + 12345;
    std::string message = "reclaimed " + std::to_string(seed % 100000) + " pages from zone ";
    message.append(20 + seed % 100, 'a' + static_cast<char>(i % 26));
    if (i % 8 == 0) message += "\nsecond line of the same entry";
    std::string payload(1, static_cast<char>(3 + i % 4));
    payload += kTags[i % 5];
    payload += '\0';
    payload += message;
    payload += '\0';

    user_logger_entry_compat* e = records[i].entry();
    e->len = static_cast<uint16_t>(payload.size());
    e->pid = 1000 + static_cast<int>(i % 7);
    e->tid = e->pid + static_cast<int>(i % 3);
    e->sec = 1700000000 + static_cast<int64_t>(i / 100);
    e->nsec = static_cast<int64_t>(i % 100) * 10000000 + 1234;
    memcpy(e->msg, payload.data(), payload.size());
  }
  return records;
}

int open_null() {
  int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (fd < 0) {
    perror("/dev/null");
    exit(1);
  }
  return fd;
}

void BM_BareWrite(benchmark::State& state) {
  std::vector<RecordBuffer> records = make_records();
  int fd = open_null();
  size_t i = 0;
  for (auto _ : state) {
    RecordBuffer& r = records[i++ % records.size()];
    ssize_t n = write(fd, r.bytes, sizeof(user_logger_entry_compat) + r.entry()->len);
    benchmark::DoNotOptimize(n);
  }
  close(fd);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BareWrite);

void BM_Print(benchmark::State& state) {
  std::vector<RecordBuffer> records = make_records();
  int fd = open_null();
  size_t i = 0;
  const Format format = static_cast<Format>(state.range(0));
  for (auto _ : state) {
    int ret =
        kestrel_logger_print(format, fd, records[i++ % records.size()].entry(), nullptr, nullptr);
    benchmark::DoNotOptimize(ret);
  }
  close(fd);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Print)->Arg(FORMAT_DEFAULT)->Arg(FORMAT_MESSAGE);

// CPU time per record, the write to /dev/null included, against the bare write.
void print_ratios(const std::map<std::string, double>& ns_per_record) {
  auto base = ns_per_record.find("BM_BareWrite");
  if (base == ns_per_record.end() || base->second <= 0) return;
  for (const auto& [name, ns] : ns_per_record) {
    if (name == base->first) continue;
    printf("%s / BM_BareWrite: %.2fx (target at most 2x)\n", name.c_str(), ns / base->second);
  }
}

}  // namespace

int main(int argc, char** argv) {
  // A fixed zone keeps the time conversion the same on every machine.
  setenv("TZ", "UTC", 1);
  tzset();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  print_ratios(reporter.times());
  benchmark::Shutdown();
  return 0;
}
