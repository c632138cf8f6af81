// SPDX-License-Identifier: Apache-2.0
// The steps of `kestrel compact` below the handler, shared with its tests: the mapping
// selectors, the per-process collection and the batched process_madvise calls. The two system
// calls go through `compact_syscalls`, which only tests replace.
#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/meminfo.h"

// Compaction kinds: a bit set, both bits ("all") when neither option is given.
inline constexpr int kCompactFile = 1;
inline constexpr int kCompactAnon = 2;
inline constexpr int kCompactAll = kCompactFile | kCompactAnon;

// Selector answers: the madvise advice to give a mapping, or none.
inline constexpr int kAdviceCold = 20;     // MADV_COLD
inline constexpr int kAdvicePageout = 21;  // MADV_PAGEOUT
inline constexpr int kAdviceNone = -1;

// The kernel takes at most this many ranges per process_madvise call.
inline constexpr size_t kMaxBatchRanges = 1024;

struct CompactSyscalls {
  int (*pidfd_open)(pid_t pid, unsigned int flags);
  ssize_t (*process_madvise)(int pidfd, const struct iovec* iov, size_t count, int advice,
                             unsigned int flags);
};

// The calls compaction makes; the platform's own unless a test has swapped in fakes.
extern CompactSyscalls compact_syscalls;

// Compacts one process with the kind's selector, or writes the kind's label to its reclaim
// file once the kernel has been found to lack process_madvise.
void compactProcessOrFallback(int pid, int kind);

int getAnyPageAdvice(const android::meminfo::Vma& vma);
int getAnonPageAdvice(const android::meminfo::Vma& vma);
int getFilePageAdvice(const android::meminfo::Vma& vma);

// Collects the mappings the selector accepts and compacts them, page-out list first. Returns the
// bytes advanced over or a negated errno. `maps_path` replaces /proc/<pid>/maps.
int64_t compactProcess(int pid, std::function<int(const android::meminfo::Vma&)> selector,
                       const std::string& maps_path = "");

// Gives `advice` to the first `count` mappings of `vmas` in batches of at most kMaxBatchRanges
// ranges and the kernel's per-call byte limit. Returns the bytes advanced over (skipped and
// refused ranges included) or a negated errno.
int64_t compactMemory(const std::vector<android::meminfo::Vma>& vmas, int pid, int advice,
                      int count);
