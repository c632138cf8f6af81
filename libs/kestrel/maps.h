// SPDX-License-Identifier: Apache-2.0
// A process's memory mappings, read from /proc/<pid>/maps: the `Vma` record and the walk over
// them, the same on a device and on a Linux host.
#pragma once

#include <stdint.h>
#include <stddef.h>
#include <sys/types.h>

#include <functional>
#include <string>

namespace tarvo::kestrel::maps {

// One line of a maps file.
struct Vma {
  uint64_t start = 0;   // first byte of the mapping
  uint64_t end = 0;     // first byte after it
  uint64_t offset = 0;  // offset into the mapped file
  uint16_t flags = 0;   // protection: kVmaRead | kVmaWrite | kVmaExec
  uint64_t inode = 0;   // inode of the mapped file, 0 for anonymous memory
  std::string name;     // path or [heap], [stack], ...; empty for anonymous memory
};

// Protection bits of Vma::flags; the same values as PROT_READ, PROT_WRITE and PROT_EXEC.
inline constexpr uint16_t kVmaRead = 1;
inline constexpr uint16_t kVmaWrite = 2;
inline constexpr uint16_t kVmaExec = 4;

// Called once per mapping; returning false ends the walk.
using VmaCallback = std::function<bool(const Vma&)>;

// Walks a maps file, calling `callback` once per mapping in file order; the x86_64 vsyscall page,
// which belongs to no process, is left out. The whole file is read
// into `buffer`, whose storage the caller keeps from one walk to the next. Returns false when the
// file cannot be read or holds a line that is not a mapping; such lines are skipped (and logged
// once per walk) while the walk goes on. A callback that ends the walk early is not a failure.
bool ForEachVmaFromFile(const std::string& path, const VmaCallback& callback,
                        std::string& buffer);

// Parses one maps line (without its newline). False, with *vma in an unspecified state, when the
// line is not a mapping.
bool ParseMapsLine(const char* line, size_t length, Vma* vma);

// The maps file of a process: /proc/<pid>/maps.
std::string MapsPath(pid_t pid);

}  // namespace tarvo::kestrel::maps
