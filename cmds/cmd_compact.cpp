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

#include <algorithm>
#include <memory>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

#include "cmds/cmds.h"
#include "cmds/compact.h"
#include "parse-options/parse-options.h"
#include "parse-options/pid_cmdline.h"
#include "platform/syscalls.h"

using android::meminfo::Vma;

CompactSyscalls compact_syscalls = {
    .pidfd_open = tarvo::kestrel::platform::pidfd_open,
    .process_madvise = tarvo::kestrel::platform::process_madvise,
};

namespace {

const uint64_t kPageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
// The kernel handles at most MAX_RW_COUNT bytes per call, INT_MAX rounded down to a page; a
// longer vector would be cut short by the kernel without saying where.
const uint64_t kByteLimit = (0 - kPageSize) & 0x7fffffff;

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

// Mappings collected for one advice. The vector keeps its entries from process to process so a
// walk over every process does not reallocate them; only the first `count` are current.
struct VmaList {
  std::vector<Vma> vmas;
  int count = 0;

  void add(const Vma& vma) {
    if (static_cast<size_t>(count) < vmas.size()) {
      vmas[static_cast<size_t>(count)] = vma;
    } else {
      vmas.push_back(vma);
    }
    count++;
  }
};

VmaList& pageout_list() {
  static VmaList list;
  return list;
}

VmaList& cold_list() {
  static VmaList list;
  return list;
}

std::string& maps_buffer() {
  static std::string buffer;
  return buffer;
}

// Set by the first ENOSYS; from then on every process goes to its reclaim file.
bool g_use_reclaim = false;

// Sends one batch until every range of it is consumed. Returns the bytes advanced over or a
// negated errno.
int64_t send_batch(int pidfd, iovec* iov, size_t ranges, uint64_t bytes, int advice) {
  size_t first = 0;
  uint64_t left = bytes;
  int64_t total = 0;
  while (first < ranges) {
    const ssize_t r =
        compact_syscalls.process_madvise(pidfd, iov + first, ranges - first, advice, 0);
    uint64_t advance;
    if (r == 0 || (r < 0 && errno == EINVAL)) {
      // A range the kernel will not advise (locked, PFN-mapped, huge pages): step over it.
      advance = iov[first].iov_len;
    } else if (r < 0) {
      return -errno;
    } else {
      advance = static_cast<uint64_t>(r);
      // The kernel stopped at a page it could not advise; go on after that page.
      if (advance < left) advance += kPageSize;
    }
    advance = std::min(advance, left);
    left -= advance;
    total += static_cast<int64_t>(advance);
    while (first < ranges && iov[first].iov_len <= advance) {
      advance -= iov[first].iov_len;
      first++;
    }
    if (advance > 0) {
      iov[first].iov_base = static_cast<char*>(iov[first].iov_base) + advance;
      iov[first].iov_len -= advance;
    }
  }
  return total;
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
      result = compactProcess(pid, chosen.selector);
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

int getAnyPageAdvice(const Vma&) { return kAdvicePageout; }

int getAnonPageAdvice(const Vma& vma) {
  const bool data = (vma.flags & (android::meminfo::kVmaRead | android::meminfo::kVmaWrite)) != 0;
  const bool code = (vma.flags & android::meminfo::kVmaExec) != 0;
  return data && !code ? kAdvicePageout : kAdviceNone;
}

int getFilePageAdvice(const Vma& vma) { return vma.inode != 0 ? kAdvicePageout : kAdviceNone; }

int64_t compactProcess(int pid, std::function<int(const Vma&)> selector,
                       const std::string& maps_path) {
  android::meminfo::ProcMemInfo meminfo(pid, false, 0, 0, maps_path);
  VmaList& pageout = pageout_list();
  VmaList& cold = cold_list();
  pageout.count = 0;
  cold.count = 0;

  meminfo.ForEachVmaFromMaps(
      [&](const Vma& vma) {
        switch (selector(vma)) {
          case kAdvicePageout:
            pageout.add(vma);
            break;
          case kAdviceCold:
            cold.add(vma);
            break;
          default:
            break;
        }
        return true;
      },
      maps_buffer());

  const int64_t paged = compactMemory(pageout.vmas, pid, kAdvicePageout, pageout.count);
  if (paged < 0) return paged;
  const int64_t cooled = compactMemory(cold.vmas, pid, kAdviceCold, cold.count);
  if (cooled < 0) return cooled;
  return paged + cooled;
}

int64_t compactMemory(const std::vector<Vma>& vmas, int pid, int advice, int count) {
  if (count <= 0) return 0;
  const size_t mappings = std::min(static_cast<size_t>(count), vmas.size());

  android::base::unique_fd pidfd(compact_syscalls.pidfd_open(pid, 0));
  if (pidfd.get() < 0) {
    const int saved_errno = errno;
    error("open pid failed\n");
    return -saved_errno;
  }

  iovec iov[kMaxBatchRanges] = {};
  int64_t total = 0;
  size_t next = 0;       // the mapping the next batch starts in
  uint64_t carried = 0;  // bytes of that mapping already handed out
  while (next < mappings) {
    size_t ranges = 0;
    uint64_t bytes = 0;
    while (next < mappings && ranges < kMaxBatchRanges && bytes < kByteLimit) {
      const Vma& vma = vmas[next];
      const uint64_t base = vma.start + carried;
      const uint64_t length = vma.end > base ? vma.end - base : 0;
      const uint64_t room = kByteLimit - bytes;
      const uint64_t take = std::min(length, room);
      iov[ranges].iov_base = reinterpret_cast<void*>(static_cast<uintptr_t>(base));
      iov[ranges].iov_len = static_cast<size_t>(take);
      ranges++;
      bytes += take;
      if (take < length) {
        carried += take;  // the rest opens the next batch
      } else {
        next++;
        carried = 0;
      }
    }
    const int64_t done = send_batch(pidfd.get(), iov, ranges, bytes, advice);
    if (done < 0) return done;
    total += done;
  }
  return total;
}
