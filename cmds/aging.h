// SPDX-License-Identifier: Apache-2.0
// The aging daemon's shared state and the services its kernel memory monitors use: the
// /proc/meminfo snapshot, monitor registration, report files under the daemon folder and the
// daemon log, which mirrors every message of the daemon into /data/tarvo/heapdump/kestrel.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <android-base/unique_fd.h>

inline constexpr char kAgingTag[] = "kestrel-aging";
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
// of fewer than two words, or a key without a number, fails the whole parse (logged).
bool parse_meminfo(const std::string& content, meminfo* mem);

// Reads a procfs file whole through one descriptor kept open between calls, from offset 0 each
// time. The buffer starts at one page and doubles until the content no longer fills it.
class MeminfoReader {
 public:
  explicit MeminfoReader(std::string path = kProcMeminfo);

  // Points `content` at the whole file, valid until the next call. False (logged) on failure.
  bool Read(std::string_view* content);
  size_t buffer_size() const { return size_; }

 private:
  struct FreeDeleter {
    void operator()(char* p) const { free(p); }
  };

  bool ReadAll(size_t* length);

  std::string path_;
  android::base::unique_fd fd_;
  std::unique_ptr<char, FreeDeleter> buf_;
  size_t size_;
};

struct aging_mem_monitor;
using aging_monitor_handler = int (*)(aging_mem_monitor* monitor, meminfo* mem);

// One kernel memory monitor. Its name is also the name of its folder under the daemon folder;
// the first field of every state record behind `data` is the 64-bit usage it last saw.
struct aging_mem_monitor {
  const char* name;
  aging_monitor_handler handler;
  void* data;
};

// The daemon's one global record. Written during start-up only, before the timer thread runs.
struct aging_state {
  int32_t log_fd = -1;
  int32_t device_log_fd = 0;
  int32_t driver_fd = -1;
  std::vector<aging_mem_monitor*> monitors;
  meminfo mem = {};
};
extern aging_state aging_data;

// Sends one message to the Android log and then, with the same priority, tag and text, to the
// daemon log. errno is kept, so a caller can report it again afterwards.
void aging_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Appends one time-stamped line to the daemon log; does nothing before the log is open.
void log_to_file(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Makes /data/tarvo/heapdump/kestrel/<name>; an existing folder is fine. Any other failure ends
// the program, so the result is always true.
bool create_dir(const char* name);

// Makes the monitor's folder and adds it to aging_data.monitors; -EINVAL on failure.
int aging_regist_monitor(aging_mem_monitor* monitor);

// Opens <daemon folder>/<monitor name>/<file_name> for appending; negative on failure. The
// caller closes it.
int aging_open_file(const aging_mem_monitor* monitor, const char* file_name);

// The kernel memory monitors. Each probe registers its monitor and writes a first report; the
// result (true or false) says whether the monitor runs.
int aging_dmabuf_probe(meminfo* mem);
int aging_slab_probe(meminfo* mem);
int aging_vmalloc_probe(meminfo* mem);
