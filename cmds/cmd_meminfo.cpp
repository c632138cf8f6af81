// SPDX-License-Identifier: Apache-2.0
// cmd_meminfo.cpp: the per-process memory table. Asks the driver for one process, the processes
// of one uid or the first 400 of the system, lays the figures out in fixed-width columns cut to
// the terminal's width, and can time the fetch.
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <string>

#include <android-base/stringprintf.h>

#include "cmds/cmds.h"
#include "libs/kestrel/kit.h"
#include "libs/kestrel/proc-memstat.h"
#include "libs/kestrel/proc-ms-fields.h"
#include "libs/kestrel/device.h"
#include "parse-options/parse-options.h"
#include "parse-options/pid_cmdline.h"

using android::base::StringPrintf;
using namespace tarvo::kestrel::memstat;

namespace {

const char* const meminfo_usage[] = {
    "kestrel meminfo [options] [--] pid",
    nullptr,
};

// Lines are not cut when standard output is not a terminal.
constexpr unsigned kUncutWidth = 99999;
constexpr int kTableCapacity = 400;

// What the command was asked to show, fixed before anything is printed, and the times of the
// fetch when they are to be shown.
struct Table {
  unsigned mask = 0;
  unsigned width = kUncutWidth;
  bool cmdline = false;
  int benchmark = 0;
  timespec fetch_start = {}, fetch_end = {};
};

void pid_proc_memstat(Table& table, int pid);
void print_header(const Table& table);
void print_proc_memstat(const Table& table, const proc_ms* ms);
void stamp(const Table& table, timespec* ts);
void print_benchmark(const Table& table, size_t struct_bytes);

}  // namespace

int cmd_meminfo(int argc, const char** argv) {
  int major = 0, minor = 0;
  if (!tarvo::kestrel::util::KestrelVersion(major, minor)) die("cannot get kestrel version.");

  Table t;
  if (tarvo::kestrel::term::isatty(1)) {
    unsigned columns = kUncutWidth;
    if (!tarvo::kestrel::term::terminal_size(&columns, nullptr)) columns = kUncutWidth;
    t.width = columns;
  }

  int pid = 0, uid = -1;
  int common = 0, vma = 0, fd = 0, mtrack = 0, extra = 0;
  const option options[] = {
      {.type = OPTION_INTEGER, .short_name = 'p', .long_name = "pid", .value = &pid, .help = "pid of process. dump all processes if not given"},
      {.type = OPTION_INTEGER, .short_name = 'u', .long_name = "uid", .value = &uid, .help = "dump processes of given uid"},
      {.type = OPTION_COUNTUP, .short_name = 'c', .long_name = "common", .value = &common, .help = "32, uid, pid, ppid, oom, vss, anon, file, shemm, comm"},
      {.type = OPTION_COUNTUP, .short_name = 'v', .long_name = "vma", .value = &vma, .help = "javaheap, nativeheap"},
      {.type = OPTION_COUNTUP, .short_name = 'f', .long_name = "fd", .value = &fd, .help = "dmabuf, ashemm"},
      {.type = OPTION_COUNTUP, .short_name = 'm', .long_name = "mtrack", .value = &mtrack, .help = "gpu"},
      {.type = OPTION_COUNTUP, .short_name = 'e', .long_name = "extra", .value = &extra, .help = "cmdline, require root permission"},
      {.type = OPTION_COUNTUP, .short_name = 'b', .long_name = "benchmark", .value = &t.benchmark, .help = "benchmark of fetch data"},
      {.type = OPTION_END},
  };
  argc = parse_options(argc, argv, options, meminfo_usage);

  if (common) t.mask |= kStatCommon;
  if (vma) t.mask |= kStatSmapsGroup;
  if (fd) t.mask |= kStatFdGroup;
  if (mtrack) t.mask |= kStatGpuGroup;
  if (t.mask == 0) t.mask = kStatAll;
  t.cmdline = extra != 0;

  // A positional pid wins over -p, and -p over -u.
  if (argc > 1) usage_with_options(meminfo_usage, options);
  if (argc == 1) {
    long number = 0;
    if (!tarvo::kestrel::kit::parse_number(argv[0], &number)) die("pid expects a numerical value");
    pid_proc_memstat(t, static_cast<int>(number));
    return 0;
  }
  if (pid != 0) {
    pid_proc_memstat(t, pid);
    return 0;
  }

  ProcMemStatHelper helper;
  helper.capacity = kTableCapacity;
  stamp(t, &t.fetch_start);
  bool ok = uid != -1 ? ProcMemStat::UidSizeMemStats(helper, t.mask, static_cast<unsigned>(uid))
                      : ProcMemStat::SizeMemStats(helper, t.mask, kTableCapacity);
  if (!ok) die("read mem stat failed.");
  stamp(t, &t.fetch_end);

  const proc_size_msu* table = helper.size_msu;
  if (table->count == 0) die("meminfo: read nothing.");
  print_header(t);
  for (uint32_t i = 0; i < table->count; i++) print_proc_memstat(t, &table->ms[i]);
  print_benchmark(t, uid != -1 ? static_cast<size_t>(helper.capacity) * sizeof(proc_ms)
                            : kTableCapacity * sizeof(proc_ms));
  return 0;
}

namespace {

void pid_proc_memstat(Table& t, int pid) {
  ProcMemStatHelper helper;
  helper.capacity = kTableCapacity;
  stamp(t, &t.fetch_start);
  if (!ProcMemStat::PidMemStat(helper, t.mask, pid)) die("read mem stat failed.");
  stamp(t, &t.fetch_end);

  print_header(t);
  print_proc_memstat(t, &helper.pid_ms->ms);
  print_benchmark(t, sizeof(proc_pid_ms));
}

void stamp(const Table& t, timespec* ts) {
  if (t.benchmark) clock_gettime(CLOCK_MONOTONIC, ts);
}

double elapsed_ms(const timespec& from, const timespec& to) {
  return static_cast<double>(to.tv_sec - from.tv_sec) * 1000 +
         static_cast<double>(to.tv_nsec - from.tv_nsec) / 1e6;
}

void print_benchmark(const Table& t, size_t struct_bytes) {
  if (!t.benchmark) return;
  timespec print_end = {};
  stamp(t, &print_end);
  printf("\nbenchmark: fetch data %.3f ms, total %.3f ms, struct %zu bytes\n",
         elapsed_ms(t.fetch_start, t.fetch_end), elapsed_ms(t.fetch_start, print_end),
         struct_bytes);
}

// Prints one line, cut to the line width with a final "+" when it is longer.
void print_line(const Table& t, const std::string& line) {
  if (line.size() <= t.width) {
    puts(line.c_str());
  } else {
    printf("%.*s+\n", static_cast<int>(t.width - 1), line.c_str());
  }
}

void print_header(const Table& t) { print_line(t, proc_ms_header(t.mask, t.cmdline)); }

void print_proc_memstat(const Table& t, const proc_ms* ms) {
  if (!t.cmdline) return print_line(t, proc_ms_row(*ms, t.mask, nullptr));
  char cmdline[kCmdlineBufferSize] = {};
  print_line(t, proc_ms_row(*ms, t.mask, pid_cmdline(ms->pid, cmdline, sizeof(cmdline)) ? cmdline : "N/A"));
}

}  // namespace
