// SPDX-License-Identifier: Apache-2.0
// The /proc/meminfo key table, its parser and the reader that keeps the file open.
#include "libs/kestrel/proc-meminfo.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <android-base/strings.h>

#include "libs/kestrel/kit.h"

const meminfo_key kMeminfoKeys[kMeminfoKeyCount] = {
    {"MemTotal:", &meminfo::mem_total},
    {"MemFree:", &meminfo::mem_free},
    {"MemAvailable:", &meminfo::mem_available},
    {"Buffers:", &meminfo::buffers},
    {"Cached:", &meminfo::cached},
    {"SwapCached:", &meminfo::swap_cached},
    {"Active:", &meminfo::active},
    {"Inactive:", &meminfo::inactive},
    {"Active(anon):", &meminfo::active_anon},
    {"Inactive(anon):", &meminfo::inactive_anon},
    {"Active(file):", &meminfo::active_file},
    {"Inactive(file):", &meminfo::inactive_file},
    {"Unevictable:", &meminfo::unevictable},
    {"Mlocked:", &meminfo::mlocked},
    {"SwapTotal:", &meminfo::swap_total},
    {"SwapFree:", &meminfo::swap_free},
    {"Dirty:", &meminfo::dirty},
    {"Writeback:", &meminfo::writeback},
    {"AnonPages:", &meminfo::anon_pages},
    {"Mapped:", &meminfo::mapped},
    {"Shmem:", &meminfo::shmem},
    {"KReclaimable:", &meminfo::k_reclaimable},
    {"Slab:", &meminfo::slab},
    {"SReclaimable:", &meminfo::s_reclaimable},
    {"SUnreclaim:", &meminfo::s_unreclaim},
    {"KernelStack:", &meminfo::kernel_stack},
    {"ShadowCallStack:", &meminfo::shadow_call_stack},
    {"PageTables:", &meminfo::page_tables},
    {"NFS_Unstable:", &meminfo::nfs_unstable},
    {"Bounce:", &meminfo::bounce},
    {"WritebackTmp:", &meminfo::writeback_tmp},
    {"CommitLimit:", &meminfo::commit_limit},
    {"Committed_AS:", &meminfo::committed_as},
    {"VmallocTotal:", &meminfo::vmalloc_total},
    {"VmallocUsed:", &meminfo::vmalloc_used},
    {"VmallocChunk:", &meminfo::vmalloc_chunk},
    {"Percpu:", &meminfo::percpu},
    {"CmaTotal:", &meminfo::cma_total},
    {"CmaFree:", &meminfo::cma_free},
    {"IonTotalCache:", &meminfo::ion_total_cache},
    {"IonTotalUsed:", &meminfo::ion_total_used},
    {"GPUTotalUsed:", &meminfo::gpu_total_used},
};

bool parse_meminfo(const std::string& content, meminfo* mem) {
  for (const std::string& line : android::base::Split(content, "\n")) {
    if (line.empty()) continue;
    std::vector<std::string> words = android::base::Split(line, " ");
    std::erase(words, std::string());
    if (words.size() < 2) return false;
    for (const meminfo_key& k : kMeminfoKeys) {
      if (words[0] != k.key) continue;
      const char* number = words[1].c_str();
      char* end = nullptr;
      long long value = strtoll(number, &end, 10);
      if (end == number) return false;
      mem->*k.field = static_cast<uint64_t>(value);
      break;
    }
  }
  return true;
}

MeminfoReader::MeminfoReader(std::string path) : path_(std::move(path)) {}

bool MeminfoReader::Read(std::string_view* content) {
  if (fd_ < 0) {
    fd_.reset(TEMP_FAILURE_RETRY(open(path_.c_str(), O_RDONLY | O_CLOEXEC)));
    if (fd_ < 0) {
      error_ = path_ + " open: " + strerror(errno);
      return false;
    }
  }
  if (buf_.empty()) buf_.resize(static_cast<size_t>(getpagesize()));
  ssize_t length = tarvo::kestrel::kit::read_whole(fd_.get(), buf_);
  if (length < 0) {
    error_ = path_ + " read: " + strerror(errno);
    fd_.reset();
    return false;
  }
  *content = std::string_view(buf_.data(), static_cast<size_t>(length));
  return true;
}
