// SPDX-License-Identifier: Apache-2.0
// Per-process memory statistics: the three driver requests (one pid, the first N processes, the
// processes of one uid) and the smaps walk that adds pss and the two heap figures, which the
// driver does not compute, to the records it returned.
#include "libs/kestrel/proc-memstat.h"

#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

#include "libs/kestrel/device.h"
#include "platform/log.h"

namespace tarvo::kestrel::memstat {

namespace {

// What a mapping counts as, decided by its name line and reset by every mapping's header line.
enum class VmaClass { kNone, kJavaHeap, kNativeHeap };

struct Prefix {
  const char* text;
  size_t compared;
};

constexpr Prefix kNativePrefixes[] = {
    {"[anon:libc_malloc", 17},
    {"[anon:scudo:", 12},
    {"[anon:GWP-ASan", 14},
};

// The first prefix is compared over 25 characters, its terminating zero included, so only a name
// that ends right after "space" matches; "[anon:dalvik-alloc space]" does not count.
constexpr Prefix kJavaPrefixes[] = {
    {"[anon:dalvik-alloc space", 25},
    {"[anon:dalvik-main space", 23},
    {"[anon:dalvik-large object space", 31},
    {"[anon:dalvik-free list large object space", 41},
    {"[anon:dalvik-non moving space", 29},
    {"[anon:dalvik-zygote space", 25},
};

template <size_t N>
bool has_prefix(const char* name, const Prefix (&prefixes)[N]) {
  for (const Prefix& p : prefixes) {
    if (strncmp(name, p.text, p.compared) == 0) return true;
  }
  return false;
}

// isspace() of the C locale, which is what %s and the blank directive of scanf stop at.
inline bool is_space(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// The state of one walk over one smaps file.
class SmapsWalk {
 public:
  SmapsWalk(int flags, proc_ms* ms) : flags_(flags), ms_(ms) {}

  // One line, zero-terminated, without its newline.
  void Line(const char* line) {
    SmapsKey key;
    if (!scan_smaps_key(line, &key) || key.key[key.len - 1] != ':') {
      class_ = VmaClass::kNone;  // a mapping's header line
      return;
    }
    switch (key.key[0]) {
      case 'P':
      case 'S':
        if ((key.len >= 4 && memcmp(key.key, "Pss:", 4) == 0) ||
            (key.len >= 8 && memcmp(key.key, "SwapPss:", 8) == 0)) {
          AddPss(line + key.value);
        }
        break;
      case 'N':
        Classify(line + key.value);
        break;
      default:
        break;
    }
  }

 private:
  void AddPss(const char* value) {
    auto pages = static_cast<uint32_t>(strtoull(value, nullptr, 10) / driver::kPageKiB);
    ms_->pss += pages;
    if (class_ == VmaClass::kNativeHeap) ms_->native_heap += pages;
    if (class_ == VmaClass::kJavaHeap) ms_->java_heap += pages;
  }

  void Classify(const char* name) {
    while (*name == ' ' || *name == '\t') name++;
    if ((flags_ & kStatNativeHeap) && has_prefix(name, kNativePrefixes)) {
      class_ = VmaClass::kNativeHeap;
      return;
    }
    if ((flags_ & kStatJavaHeap) && has_prefix(name, kJavaPrefixes)) class_ = VmaClass::kJavaHeap;
  }

  const int flags_;
  proc_ms* const ms_;
  VmaClass class_ = VmaClass::kNone;
};

// Feeds every line of the file to the walk, zero-terminated in place of its newline: a mapping's
// name then ends where its line ends, which is what the 25-character compare of the first Java
// prefix relies on. The buffer grows only for a line longer than itself.
void walk_lines(int fd, SmapsWalk& walk) {
  std::vector<char> buf(64 * 1024);
  size_t have = 0;
  for (;;) {
    // One byte stays free for the zero after a last line.
    if (have + 1 == buf.size()) buf.resize(buf.size() * 2);
    ssize_t n = TEMP_FAILURE_RETRY(read(fd, buf.data() + have, buf.size() - 1 - have));
    if (n <= 0) break;  // end of file, or an error: what was read still counts
    have += static_cast<size_t>(n);

    char* line = buf.data();
    char* end = line + have;
    while (char* nl = static_cast<char*>(memchr(line, '\n', static_cast<size_t>(end - line)))) {
      *nl = '\0';
      walk.Line(line);
      line = nl + 1;
    }
    have = static_cast<size_t>(end - line);
    memmove(buf.data(), line, have);
  }
  if (have > 0) {  // a last line without its newline
    buf[have] = '\0';
    walk.Line(buf.data());
  }
}

bool valid_flags(unsigned flags) {
  if ((flags & kStatAll) != 0) return true;
  KLOGE("Invalid argument flag 0x%x\n", flags);
  return false;
}

bool init_helper(ProcMemStatHelper& helper) {
  if (helper.Init()) return true;
  KLOGE("Helper init failed.\n");
  return false;
}

bool stat_request(int fd, unsigned long request, void* arg) {
  if (util::KestrelRequest(fd, request, reinterpret_cast<unsigned long>(arg)) >= 0) return true;
  KLOGE("Failed to ioctl %s\n", strerror(errno));
  return false;
}

// Issues a table request for up to `room` records, then completes each record the driver filled
// from its smaps when a smaps figure is asked for. A process that exited meanwhile keeps the
// driver's figures.
bool fetch_table(ProcMemStatHelper& helper, unsigned long request, unsigned flags, uint32_t room) {
  proc_size_msu* table = helper.size_msu;
  table->flags = flags;
  table->count = room;
  if (!stat_request(helper.fd, request, table)) return false;
  // The buffer holds no more than was asked for, whatever the driver claims.
  if (table->count > room) table->count = room;
  if ((flags & kStatSmapsGroup) == 0) return true;
  for (uint32_t i = 0; i < table->count; i++) {
    iterate_vma(table->ms[i].pid, static_cast<int>(flags), &table->ms[i]);
  }
  return true;
}

}  // namespace

bool scan_smaps_key(const char* line, SmapsKey* out) {
  const char* p = line;
  while (is_space(static_cast<unsigned char>(*p))) p++;
  if (*p == '\0') return false;
  const char* key = p;
  size_t len = 0;
  while (len < 63 && key[len] != '\0' && !is_space(static_cast<unsigned char>(key[len]))) len++;
  p = key + len;
  while (is_space(static_cast<unsigned char>(*p))) p++;
  out->key = key;
  out->len = len;
  out->value = static_cast<size_t>(p - line);
  return true;
}

bool iterate_vma(int pid, int flags, proc_ms* ms, const std::string& smaps_path) {
  std::string path =
      smaps_path.empty() ? android::base::StringPrintf("/proc/%d/smaps", pid) : smaps_path;
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return false;
  SmapsWalk walk(flags, ms);
  walk_lines(fd.get(), walk);
  return true;
}

ProcMemStatHelper::~ProcMemStatHelper() {
  if (pid_ms != nullptr) free(pid_ms);
  if (size_msu != nullptr) free(size_msu);
}

bool ProcMemStatHelper::Init() {
  fd = util::KestrelFd();
  if (fd == -1) return false;
  if (pid_ms == nullptr) {
    pid_ms = static_cast<proc_pid_ms*>(calloc(1, sizeof(proc_pid_ms)));
    if (pid_ms == nullptr) {
      KLOGE("Failed to malloc proc_pid_ms\n");
      return false;
    }
  }
  if (size_msu == nullptr) {
    size_msu = static_cast<proc_size_msu*>(calloc(1, proc_size_msu_bytes(capacity)));
    if (size_msu == nullptr) {
      // Give up both buffers; pid_ms must not be left dangling for the destructor.
      free(pid_ms);
      pid_ms = nullptr;
      KLOGE("Failed to malloc proc_size_msu\n");
      return false;
    }
  }
  return true;
}

bool ProcMemStat::PidMemStat(ProcMemStatHelper& helper, unsigned flags, int pid) {
  if (!valid_flags(flags) || !init_helper(helper)) return false;
  helper.pid_ms->flags = flags;
  helper.pid_ms->pid = pid;
  if (!stat_request(helper.fd, driver::kPidMemStat, helper.pid_ms)) return false;
  if ((flags & kStatSmapsGroup) == 0) return true;
  if (!iterate_vma(pid, static_cast<int>(flags), &helper.pid_ms->ms)) {
    KLOGE("Failed to iterate vma %s\n", strerror(errno));
  }
  return true;
}

bool ProcMemStat::SizeMemStats(ProcMemStatHelper& helper, unsigned flags, unsigned long size) {
  if (!valid_flags(flags)) return false;
  // The limit is not compared with the helper's capacity: the caller keeps that large enough.
  if (size - 1 >= kMaxSizeMemStats) {
    KLOGE("Invalid size 0x%zu\n", static_cast<size_t>(size));
    return false;
  }
  if (!init_helper(helper)) return false;
  return fetch_table(helper, driver::kSizeMemStats, flags, static_cast<uint32_t>(size));
}

bool ProcMemStat::UidSizeMemStats(ProcMemStatHelper& helper, unsigned flags, unsigned uid) {
  if (!valid_flags(flags) || !init_helper(helper)) return false;
  helper.size_msu->uid = uid;
  return fetch_table(helper, driver::kUidMemStats, flags, static_cast<uint32_t>(helper.capacity));
}

}  // namespace tarvo::kestrel::memstat
