// SPDX-License-Identifier: Apache-2.0
// Compaction of one process: the mapping selectors, the collection of the mappings a selector
// accepts and the batched process_madvise calls that hand them to the kernel. Nothing is
// printed here; a failure comes back as a negated errno and the call that failed.
#pragma once

#include <stdint.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <functional>
#include <string>
#include <vector>

#include "libs/kestrel/maps.h"

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

// The bytes the kernel takes in one process_madvise call: MAX_RW_COUNT, INT_MAX rounded down to
// a page. A longer vector would be cut short by the kernel without saying where.
uint64_t compact_byte_limit();

// The two system calls compaction makes: the platform's own, or a test's fakes.
struct CompactSyscalls {
  int (*pidfd_open)(pid_t pid, unsigned int flags);
  ssize_t (*process_madvise)(int pidfd, const struct iovec* iov, size_t count, int advice,
                             unsigned int flags);

  static CompactSyscalls Platform();
};

// Where a compaction stopped, when it did not get through.
enum class CompactFailure {
  kNone,
  kOpenPid,  // pidfd_open
  kAdvise,   // process_madvise
};

using VmaSelector = std::function<int(const tarvo::kestrel::maps::Vma&)>;

int getAnyPageAdvice(const tarvo::kestrel::maps::Vma& vma);
int getAnonPageAdvice(const tarvo::kestrel::maps::Vma& vma);
int getFilePageAdvice(const tarvo::kestrel::maps::Vma& vma);

// Collects the mappings the selector accepts and compacts them, page-out list first. Returns the
// bytes advanced over or a negated errno, and where it stopped in *failure when given.
// `maps_path` replaces /proc/<pid>/maps.
int64_t compactProcess(int pid, const VmaSelector& selector, const std::string& maps_path = "",
                       const CompactSyscalls& calls = CompactSyscalls::Platform(),
                       CompactFailure* failure = nullptr);

// Gives `advice` to the first `count` mappings of `vmas` in batches of at most kMaxBatchRanges
// ranges and the kernel's per-call byte limit. Returns the bytes advanced over (skipped and
// refused ranges included) or a negated errno.
int64_t compactMemory(const std::vector<tarvo::kestrel::maps::Vma>& vmas, int pid, int advice,
                      int count, const CompactSyscalls& calls = CompactSyscalls::Platform(),
                      CompactFailure* failure = nullptr);
