// SPDX-License-Identifier: Apache-2.0
// The maps walk: the file is read whole into the caller's buffer with large reads (procfs fills
// as much of each read as fits, so a process with ten thousand mappings costs a handful of
// system calls), then cut into lines and parsed in place without further allocation.
#include "libs/kestrel/maps.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include <android-base/unique_fd.h>

#include "libs/kestrel/kit.h"
#include "platform/log.h"

namespace tarvo::kestrel::maps {
namespace {

namespace kit = tarvo::kestrel::kit;

constexpr size_t kFirstRead = 64 * 1024;

// The x86_64 vsyscall page is listed in maps but lies in the kernel's half of the address space,
// outside every process's own mappings: system calls refuse its address (process_madvise fails
// the whole vector with EFAULT). User addresses never reach the top bit on x86_64 or arm64.
constexpr uint64_t kKernelHalf = uint64_t{1} << 63;

// Reads a hexadecimal number of at most 16 digits that ends at `stop`. Advances *p past it.
bool parse_hex(const char*& p, const char* end, char stop, uint64_t* value) {
  uint64_t v = 0;
  int digits = 0;
  for (; p < end && *p != stop; p++, digits++) {
    const char c = *p;
    int d;
    if (c >= '0' && c <= '9') {
      d = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      d = c - 'a' + 10;
    } else if (c >= 'A' && c <= 'F') {
      d = c - 'A' + 10;
    } else {
      return false;
    }
    if (digits == 16) return false;
    v = (v << 4) | static_cast<uint64_t>(d);
  }
  if (digits == 0 || p == end) return false;
  p++;  // the stop character
  *value = v;
  return true;
}

// Reads a decimal number that ends at a blank or at the end of the line.
bool parse_dec(const char*& p, const char* end, uint64_t* value) {
  uint64_t v = 0;
  int digits = 0;
  for (; p < end && *p != ' '; p++, digits++) {
    if (*p < '0' || *p > '9') return false;
    const uint64_t d = static_cast<uint64_t>(*p - '0');
    if (v > (UINT64_MAX - d) / 10) return false;
    v = v * 10 + d;
  }
  if (digits == 0) return false;
  *value = v;
  return true;
}

// Reads the whole file at `path` into `buffer`, keeping the buffer's storage.
bool read_whole(const std::string& path, std::string& buffer) {
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) {
    KLOGE("cannot open %s: %s", path.c_str(), strerror(errno));
    return false;
  }
  buffer.resize(std::max(buffer.capacity(), kFirstRead));
  ssize_t n = kit::read_whole(fd.get(), buffer);
  if (n < 0) {
    KLOGE("cannot read %s: %s", path.c_str(), strerror(errno));
    buffer.clear();
    return false;
  }
  buffer.resize(static_cast<size_t>(n));
  return true;
}

}  // namespace

bool ParseMapsLine(const char* line, size_t length, Vma* vma) {
  const char* p = line;
  const char* const end = line + length;

  if (!parse_hex(p, end, '-', &vma->start) || !parse_hex(p, end, ' ', &vma->end)) return false;
  if (vma->end <= vma->start) return false;

  // "rwxp": each position holds its letter or '-'; the last is 'p' (private) or 's' (shared).
  if (end - p < 5 || p[4] != ' ') return false;
  static constexpr char kLetters[] = "rwx";
  static constexpr uint16_t kBits[] = {kVmaRead, kVmaWrite, kVmaExec};
  uint16_t flags = 0;
  for (int i = 0; i < 3; i++) {
    if (p[i] == kLetters[i]) {
      flags |= kBits[i];
    } else if (p[i] != '-') {
      return false;
    }
  }
  if (p[3] != 'p' && p[3] != 's') return false;
  vma->flags = flags;
  p += 5;

  uint64_t major = 0, minor = 0;
  if (!parse_hex(p, end, ' ', &vma->offset) || !parse_hex(p, end, ':', &major) ||
      !parse_hex(p, end, ' ', &minor) || !parse_dec(p, end, &vma->inode)) {
    return false;
  }

  // The kernel pads the inode column with blanks before a name; anonymous memory has none.
  while (p < end && *p == ' ') p++;
  vma->name.assign(p, static_cast<size_t>(end - p));
  return true;
}

bool ForEachVmaFromFile(const std::string& path, const VmaCallback& callback,
                        std::string& buffer) {
  if (!read_whole(path, buffer)) return false;

  bool ok = true;
  size_t line_number = 0;
  Vma vma;
  const char* p = buffer.data();
  const char* const end = p + buffer.size();
  while (p < end) {
    const char* nl = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(end - p)));
    const char* line_end = nl != nullptr ? nl : end;
    line_number++;
    if (ParseMapsLine(p, static_cast<size_t>(line_end - p), &vma)) {
      if (vma.start < kKernelHalf && !callback(vma)) return ok;
    } else if (ok) {
      KLOGE("%s:%zu is not a mapping", path.c_str(), line_number);
      ok = false;
    }
    p = nl != nullptr ? nl + 1 : end;
  }
  return ok;
}

std::string MapsPath(pid_t pid) { return "/proc/" + std::to_string(pid) + "/maps"; }

}  // namespace tarvo::kestrel::maps
