// SPDX-License-Identifier: Apache-2.0
// cmd_malloc_debug.cpp: asks a running process's allocator hook to switch debugging on or off,
// to dump the backtraces of its allocations or to run an allocator maintenance operation. The
// request travels as the value of one real-time signal; a dump is then followed on the driver's
// log until the target reports its end.
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "cmds/cmds.h"
#include "cmds/driver_log.h"
#include "libs/kestrel/kit.h"
#include "libs/kestrel/logger.h"
#include "libs/kestrel/device.h"
#include "libs/kestrel/malloc_debug.h"
#include "parse-options/parse-options.h"
#include "parse-options/pid_cmdline.h"

using tarvo::kestrel::logger::Entry;
using tarvo::kestrel::logger::FORMAT_MESSAGE;
using tarvo::kestrel::logger::kestrel_logger_print;
using tarvo::kestrel::logger::RecordBuffer;
using namespace tarvo::kestrel::malloc_debug;

namespace {

// Indexed by the request value.
constexpr const char* kRequestNames[] = {
    "enable", "dump", "disable", "alloc-stats", "alloc-purge", "alloc-purge_all",
};

// A dump waits at most this long for each record of the target.
constexpr int kDumpTimeoutMs = 5000;

struct dump_context {
  struct timespec start;  // when the request was made; older records are not the dump's
  const char* tag;
  int pid;
  uint8_t done;
};

// Lets through the target's records from the start second on; the hook's last record ("END..."
// or "Dumping to file ...") ends the dump and is printed too.
int callback(const Entry* entry, void* data) {
  auto* ctx = static_cast<dump_context*>(data);
  if (entry->tv_sec < static_cast<int64_t>(ctx->start.tv_sec) || entry->pid != ctx->pid) {
    return 1;
  }
  if (strncmp(entry->message, "END", 3) == 0 ||
      strncmp(entry->message, "Dumping to file", 15) == 0) {
    ctx->done = 1;
  }
  return 0;
}

// Prints the target's part of the driver log until the dump ends. Never returns otherwise: a
// time-out, the end of the stream or a broken record ends the process.
int follow_dump(dump_context* ctx) {
  int fd = tarvo::kestrel::util::KestrelFd();
  if (fd < 0) die("open kestrel failed");

  RecordBuffer buf = {};
  for (;;) {
    next_record_or_die(fd, kDumpTimeoutMs, &buf);
    kestrel_logger_print(FORMAT_MESSAGE, STDOUT_FILENO, buf.entry(), callback, ctx);
    if (ctx->done) return 0;
  }
}

// The success line shows the program name: the cmdline's first NUL ends the text.
void print_success(int pid, int request) {
  char cmdline[kCmdlineBufferSize] = {};
  if (read_pid_cmdline(pid, cmdline, sizeof(cmdline)) < 0) die("read cmdline failed");
  printf("%s:%d %s malloc debug successfully\n", cmdline, pid, kRequestNames[request]);
}

}  // namespace

int cmd_malloc_debug(int argc, const char** argv) {
  int enable = 0, dump = 0, disable = 0, purge = 0, purgeall = 0, stat = 0;
  const option options[] = {
      {.type = OPTION_COUNTUP, .short_name = 'e', .long_name = "enable", .value = &enable,
       .help = "install malloc debug hook"},
      {.type = OPTION_COUNTUP, .short_name = 'd', .long_name = "dump", .value = &dump,
       .help = "dump backtrace of pid"},
      {.type = OPTION_COUNTUP, .short_name = 'D', .long_name = "disable", .value = &disable,
       .help = "disable malloc debug hook"},
      {.type = OPTION_COUNTUP, .short_name = 'p', .long_name = "purge", .value = &purge,
       .help = "[allocator] M_PURGE"},
      {.type = OPTION_COUNTUP, .short_name = 'P', .long_name = "purgeall", .value = &purgeall,
       .help = "[allocator] M_PURGE_ALL"},
      {.type = OPTION_COUNTUP, .short_name = 's', .long_name = "stat", .value = &stat,
       .help = "[allocator] M_LOG_STATS"},
      {.type = OPTION_END},
  };
  const char* const usage[] = {"kestrel malloc-debug [options] [--] pid", nullptr};

  argc = parse_options(argc, argv, options, usage);

  // The first switch in this order wins; the others are ignored.
  int request;
  if (enable) {
    request = kEnable;
  } else if (dump) {
    request = kDump;
  } else if (disable) {
    request = kDisable;
  } else if (stat) {
    request = kStat;
  } else if (purge) {
    request = kPurge;
  } else if (purgeall) {
    request = kPurgeAll;
  } else {
    usage_with_options(usage, options);
  }
  if (argc < 1) usage_with_options(usage, options);

  long number = 0;
  if (!tarvo::kestrel::kit::parse_number(argv[0], &number)) die("pid expects a numerical value");
  int pid = static_cast<int>(number);
  if (pid < 1) die("pid need a positive value");

  dump_context ctx = {.start = {}, .tag = "malloc_debug", .pid = pid, .done = 0};
  if (request == kDump && clock_gettime(CLOCK_REALTIME, &ctx.start) != 0) {
    die("get clock real time failed");
  }

  union sigval value = {};
  value.sival_int = request;
  if (sigqueue(pid, request_signal(), value) != 0) {
    return error("install malloc_debug failed. %s\n", strerror(errno));
  }

  if (request != kDump) {
    print_success(pid, request);
    return 0;
  }
  return follow_dump(&ctx);
}
