// SPDX-License-Identifier: Apache-2.0
// cmd_compact.cpp: `kestrel compact` pushes the memory of one process, or of every system
// process, out to swap. The chosen mappings go to the kernel through process_madvise in batches;
// on a kernel without it the process's reclaim file is asked to do the same job instead.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <memory>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

#include "cmds/cmds.h"
#include "libs/kestrel/compact.h"
#include "parse-options/parse-options.h"
#include "parse-options/pid_cmdline.h"

using tarvo::kestrel::maps::Vma;

namespace {

// Apps run under uids from 10000 on; below are the system's own processes.
constexpr uid_t kFirstAppUid = 10000;

const char* const usage[] = {"kestrel proc_madvise [options]", nullptr};

struct CompactKind {
  const char* label;  // what the reclaim file understands
  int (*selector)(const Vma&);
};

// Indexed by the kind bits; 0 selects nothing.
constexpr CompactKind kKinds[] = {
    {nullptr, nullptr},
    {"file", getFilePageAdvice},
    {"anon", getAnonPageAdvice},
    {"all", getAnyPageAdvice},
};

// Set by the first ENOSYS; from then on every process goes to its reclaim file.
bool g_use_reclaim = false;

// Compacts one process with the kind's selector, or writes the kind's label to its reclaim
// file once the kernel has been found to lack process_madvise.
void compactProcessOrFallback(int pid, int kind) {
  const CompactKind& chosen = kKinds[kind & kCompactAll];
  if (chosen.selector == nullptr) return;

  if (!g_use_reclaim) {
    // pid_cmdline writes no terminating zero, so a one-letter command line shows as "xA".
    char cmdline[kCmdlineBufferSize] = "NA";
    int64_t result = 0;
    if (!pid_cmdline(pid, cmdline, sizeof(cmdline))) {
      printf("read pid:%d failed\n", pid);
    } else {
      printf("compact pid:%d %s\n", pid, cmdline);
      CompactFailure failure = CompactFailure::kNone;
      result = compactProcess(pid, chosen.selector, "", CompactSyscalls::Platform(), &failure);
      if (failure == CompactFailure::kOpenPid) error("open pid failed\n");
    }
    if (result == -ENOSYS) g_use_reclaim = true;
  }
  if (g_use_reclaim) {
    // Kernels before process_madvise carry the vendor's reclaim file; what it answers is of no
    // use here. procfs makes it a regular file: anything else in its place (a FIFO would block
    // the open for ever) is left alone.
    android::base::unique_fd reclaim(
        open(android::base::StringPrintf("/proc/%d/reclaim", pid).c_str(),
             O_WRONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat st;
    if (reclaim != -1 && fstat(reclaim.get(), &st) == 0 && S_ISREG(st.st_mode)) {
      android::base::WriteStringToFd(chosen.label, reclaim.get());
    }
  }
}


void compact_all_processes(int kind) {
  std::unique_ptr<DIR, int (*)(DIR*)> proc(opendir("/proc"), closedir);
  if (!proc) {
    error("cannot list /proc: %s", strerror(errno));
    return;
  }
  const int self = getpid();
  while (const dirent* entry = readdir(proc.get())) {
    if (entry->d_type != DT_DIR) continue;
    const int pid = atoi(entry->d_name);
    if (pid == self) continue;
    const std::string status = android::base::StringPrintf("/proc/%s/status", entry->d_name);
    struct stat st;
    if (stat(status.c_str(), &st) == 0 && st.st_uid < kFirstAppUid) {
      compactProcessOrFallback(pid, kind);
    }
  }
}

}  // namespace

int cmd_proc_madvise(int argc, const char** argv) {
  int pid = 0;
  int kind = 0;
  const option options[] = {
      {.type = OPTION_INTEGER, .short_name = 'p', .long_name = "pid", .value = &pid,
       .help = "pid of process. compact all processes (uid > 10000) if not given"},
      {.type = OPTION_BIT, .long_name = "file", .value = &kind, .help = "compact file",
       .defval = kCompactFile},
      {.type = OPTION_BIT, .long_name = "anon", .value = &kind, .help = "compact anon",
       .defval = kCompactAnon},
      {.type = OPTION_END},
  };
  // A leftover word is most likely a pid typed without --pid; going on would compact every
  // system process instead of the one meant.
  if (parse_options(argc, argv, options, usage) > 0) usage_with_options(usage, options);
  if (kind == 0) kind = kCompactAll;

  timespec begin = {};
  clock_gettime(CLOCK_MONOTONIC, &begin);
  if (pid != 0) {
    compactProcessOrFallback(pid, kind);
  } else {
    compact_all_processes(kind);
  }
  timespec end = {};
  clock_gettime(CLOCK_MONOTONIC, &end);
  printf("done: total %.3f ms\n", static_cast<double>(end.tv_sec - begin.tv_sec) * 1000.0 +
                                      static_cast<double>(end.tv_nsec - begin.tv_nsec) / 1e6);
  return 0;
}
