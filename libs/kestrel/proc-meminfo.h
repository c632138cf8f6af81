// SPDX-License-Identifier: Apache-2.0
// /proc/meminfo: the 42 figures the aging daemon records, their parser, and a reader that keeps
// its descriptor open so the file can be read again cheaply. Nothing is logged here: a failure
// comes back to the caller, with its reason where there is one.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include <android-base/unique_fd.h>

inline constexpr char kProcMeminfo[] = "/proc/meminfo";

// One /proc/meminfo snapshot, in kB as the kernel prints it; one field per key of
// kMeminfoKeys, in the same order. A key the kernel does not print stays 0.
struct meminfo {
  uint64_t mem_total;
  uint64_t mem_free;
  uint64_t mem_available;
  uint64_t buffers;
  uint64_t cached;
  uint64_t swap_cached;
  uint64_t active;
  uint64_t inactive;
  uint64_t active_anon;
  uint64_t inactive_anon;
  uint64_t active_file;
  uint64_t inactive_file;
  uint64_t unevictable;
  uint64_t mlocked;
  uint64_t swap_total;
  uint64_t swap_free;
  uint64_t dirty;
  uint64_t writeback;
  uint64_t anon_pages;
  uint64_t mapped;
  uint64_t shmem;
  uint64_t k_reclaimable;
  uint64_t slab;
  uint64_t s_reclaimable;
  uint64_t s_unreclaim;
  uint64_t kernel_stack;
  uint64_t shadow_call_stack;
  uint64_t page_tables;
  uint64_t nfs_unstable;
  uint64_t bounce;
  uint64_t writeback_tmp;
  uint64_t commit_limit;
  uint64_t committed_as;
  uint64_t vmalloc_total;
  uint64_t vmalloc_used;
  uint64_t vmalloc_chunk;
  uint64_t percpu;
  uint64_t cma_total;
  uint64_t cma_free;
  uint64_t ion_total_cache;
  uint64_t ion_total_used;
  uint64_t gpu_total_used;
};

struct meminfo_key {
  const char* key;  // exactly as /proc/meminfo prints it, colon included
  uint64_t meminfo::*field;
};
inline constexpr size_t kMeminfoKeyCount = 42;
static_assert(sizeof(meminfo) == kMeminfoKeyCount * sizeof(uint64_t));
extern const meminfo_key kMeminfoKeys[kMeminfoKeyCount];

// Fills the fields of the keys found in `content` (a later line wins over an earlier one) and
// leaves the others as they are. Lines whose first word is not a key are skipped, but any line
// of fewer than two words, or a key without a number, fails the whole parse.
bool parse_meminfo(const std::string& content, meminfo* mem);

// Reads a procfs file whole through one descriptor kept open between calls, from offset 0 each
// time. The buffer starts at one page and doubles until the content no longer fills it.
class MeminfoReader {
 public:
  explicit MeminfoReader(std::string path = kProcMeminfo);

  // Points `content` at the whole file, valid until the next call. False on failure, with
  // error() saying why ("<path> open: <reason>" or "<path> read: <reason>").
  bool Read(std::string_view* content);
  size_t buffer_size() const { return buf_.size(); }
  const std::string& error() const { return error_; }

 private:
  std::string path_;
  android::base::unique_fd fd_;
  std::vector<char> buf_;
  std::string error_;
};
