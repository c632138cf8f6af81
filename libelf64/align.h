// SPDX-License-Identifier: Apache-2.0
// The 16 KiB page check of ELF files across a device: which directories hold the device's
// partitions, and the walk that lists every ELF file whose load segments are aligned for pages
// smaller than 16 KiB.
#pragma once

#include <stdio.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>

namespace tarvo::kestrel::elf_align {

// A PT_LOAD segment aligned to less than this cannot be mapped with 16 KiB pages.
inline constexpr uint64_t kMinLoadAlign = 16384;

// The top-level directories of the mount points in the mount table ("/vendor/dsp" gives
// "/vendor"), without those that hold no partition image ("/", "/data", "/proc", ...). Empty
// when the table cannot be opened.
std::set<std::string> elf_align_roots(const char* mounts = "/proc/mounts");

// Receives each problem of a walk as one line of text.
using WalkProblem = std::function<void(const std::string& message)>;

// Walks root without following directory links and prints "<path> <alignment>" to out for every
// ELF file with a load segment aligned below kMinLoadAlign, one line per file. A directory that
// cannot be read is skipped and handed to `problem`.
void elf_align_scan(const std::string& root, FILE* out, const WalkProblem& problem = nullptr);

}  // namespace tarvo::kestrel::elf_align
