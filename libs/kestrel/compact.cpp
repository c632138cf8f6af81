// SPDX-License-Identifier: Apache-2.0
// Compaction of one process: its mappings are read from its maps file, sorted by the selector's
// advice and handed to the kernel through process_madvise in batches the kernel accepts whole.
#include "libs/kestrel/compact.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/unique_fd.h>

#include "platform/syscalls.h"

namespace maps = tarvo::kestrel::maps;
using maps::Vma;

CompactSyscalls CompactSyscalls::Platform() {
  return {.pidfd_open = tarvo::kestrel::platform::pidfd_open,
          .process_madvise = tarvo::kestrel::platform::process_madvise};
}

namespace {

const uint64_t kPageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
const uint64_t kByteLimit = compact_byte_limit();

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

// Sends one batch until every range of it is consumed. Returns the bytes advanced over or a
// negated errno.
int64_t send_batch(const CompactSyscalls& calls, int pidfd, iovec* iov, size_t ranges,
                   uint64_t bytes, int advice) {
  size_t first = 0;
  uint64_t left = bytes;
  int64_t total = 0;
  while (first < ranges) {
    const ssize_t r =
        calls.process_madvise(pidfd, iov + first, ranges - first, advice, 0);
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

}  // namespace

uint64_t compact_byte_limit() {
  return (0 - static_cast<uint64_t>(sysconf(_SC_PAGESIZE))) & 0x7fffffff;
}

int getAnyPageAdvice(const Vma&) { return kAdvicePageout; }

int getAnonPageAdvice(const Vma& vma) {
  const bool data = (vma.flags & (maps::kVmaRead | maps::kVmaWrite)) != 0;
  const bool code = (vma.flags & maps::kVmaExec) != 0;
  return data && !code ? kAdvicePageout : kAdviceNone;
}

int getFilePageAdvice(const Vma& vma) { return vma.inode != 0 ? kAdvicePageout : kAdviceNone; }

int64_t compactProcess(int pid, const VmaSelector& selector, const std::string& maps_path,
                       const CompactSyscalls& calls, CompactFailure* failure) {
  VmaList& pageout = pageout_list();
  VmaList& cold = cold_list();
  pageout.count = 0;
  cold.count = 0;

  maps::ForEachVmaFromFile(
      maps_path.empty() ? maps::MapsPath(pid) : maps_path,
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

  const int64_t paged =
      compactMemory(pageout.vmas, pid, kAdvicePageout, pageout.count, calls, failure);
  if (paged < 0) return paged;
  const int64_t cooled = compactMemory(cold.vmas, pid, kAdviceCold, cold.count, calls, failure);
  if (cooled < 0) return cooled;
  return paged + cooled;
}

int64_t compactMemory(const std::vector<Vma>& vmas, int pid, int advice, int count,
                      const CompactSyscalls& calls, CompactFailure* failure) {
  if (failure != nullptr) *failure = CompactFailure::kNone;
  if (count <= 0) return 0;
  const size_t mappings = std::min(static_cast<size_t>(count), vmas.size());

  android::base::unique_fd pidfd(calls.pidfd_open(pid, 0));
  if (pidfd.get() < 0) {
    if (failure != nullptr) *failure = CompactFailure::kOpenPid;
    return -errno;
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
    const int64_t done = send_batch(calls, pidfd.get(), iov, ranges, bytes, advice);
    if (done < 0) {
      if (failure != nullptr) *failure = CompactFailure::kAdvise;
      return done;
    }
    total += done;
  }
  return total;
}
