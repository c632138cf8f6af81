// SPDX-License-Identifier: Apache-2.0
// The maps reader on arbitrary file content, read from a scratch file as from /proc/<pid>/maps.
// Each line is also parsed on its own: a line the parser accepts must read the same through the
// conventional sscanf form of a maps line, so the hand-written number parsing can neither drop
// nor shift a digit, and the walk over the file must hand out exactly the accepted lines and
// fail exactly when some line is not a mapping.
#include <inttypes.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "fuzz/support.h"
#include "libs/kestrel/maps.h"

using tarvo::kestrel::maps::ForEachVmaFromFile;
using tarvo::kestrel::maps::ParseMapsLine;
using tarvo::kestrel::maps::Vma;

namespace {

// Mappings at or above this address (the x86_64 vsyscall page) are not handed out.
constexpr uint64_t kKernelHalf = uint64_t{1} << 63;

// Checks one line; true when it is a mapping.
bool check_line(const char* line, size_t length, Vma& vma) {
  if (!ParseMapsLine(line, length, &vma)) return false;
  FUZZ_CHECK(vma.start < vma.end);
  FUZZ_CHECK((vma.flags & ~7) == 0);
  // The name is the end of the line, without the blanks before it.
  FUZZ_CHECK(vma.name.size() <= length);
  FUZZ_CHECK(memcmp(vma.name.data(), line + length - vma.name.size(), vma.name.size()) == 0);
  FUZZ_CHECK(vma.name.empty() || vma.name[0] != ' ');

  const std::string text(line, length);  // sscanf needs the zero byte
  uint64_t start = 0, end = 0, offset = 0, major = 0, minor = 0, inode = 0;
  char perms[5] = {};
  const int n = sscanf(text.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %" SCNx64 " %" SCNx64
                       ":%" SCNx64 " %" SCNu64, &start, &end, perms, &offset, &major, &minor, &inode);
  FUZZ_CHECK(n == 7);
  FUZZ_CHECK(start == vma.start && end == vma.end && offset == vma.offset && inode == vma.inode);
  const uint16_t flags = (perms[0] == 'r' ? 1 : 0) | (perms[1] == 'w' ? 2 : 0) |
                         (perms[2] == 'x' ? 4 : 0);
  FUZZ_CHECK(flags == vma.flags);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static kestrel_fuzz::ScratchFile file("maps");
  static std::string buffer;

  const char* text = reinterpret_cast<const char*>(data);
  bool all_mappings = true;
  size_t expected = 0;
  for (size_t at = 0; at < size;) {
    const char* nl = static_cast<const char*>(memchr(text + at, '\n', size - at));
    const size_t length = nl != nullptr ? static_cast<size_t>(nl - text) - at : size - at;
    Vma vma;
    if (check_line(text + at, length, vma)) {
      if (vma.start < kKernelHalf) expected++;
    } else {
      all_mappings = false;
    }
    at += length + 1;
  }

  file.Write(data, size);
  size_t seen = 0;
  const bool ok = ForEachVmaFromFile(
      file.path(),
      [&](const Vma& vma) {
        FUZZ_CHECK(vma.start < vma.end && vma.start < kKernelHalf);
        seen++;
        return true;
      },
      buffer);
  FUZZ_CHECK(ok == all_mappings);
  FUZZ_CHECK(seen == expected);
  return 0;
}
