// SPDX-License-Identifier: Apache-2.0
// The vendor kernel's kmalloc debugging switches under /proc/tarvo_healthinfo: turn the facility
// on or off, pick the size caches it watches, and read its allocation dump. Failures are logged
// under "kestrel" and leave errno as the failing call set it.
#pragma once

#include <string>

namespace tarvo::kestrel::memstat {

// The kmalloc size caches the kernel can debug, the only names the create file accepts.
inline constexpr const char* kSlabCaches[] = {"64", "128", "256", "512", "1024", "2048", "4096", "8192"};

struct SlabDebugPaths {
  std::string enable = "/proc/tarvo_healthinfo/kmalloc_debug_enable";
  std::string create = "/proc/tarvo_healthinfo/kmalloc_debug_create";
  std::string dump = "/proc/tarvo_healthinfo/kmalloc_debug";

  static SlabDebugPaths Device() { return {}; }
};

// Writes "1" or "0" to the enable file when it holds the other state. A facility already in
// the wanted state is reported as a failure: the caller learns that someone else owns it.
bool slab_debug_enable(bool enable, const SlabDebugPaths& paths = SlabDebugPaths::Device());

// Asks the kernel to debug one kmalloc size cache, "64" to "8192"; a cache already debugged
// (EEXIST) counts as success.
bool slab_debug_create(const char* name, const SlabDebugPaths& paths = SlabDebugPaths::Device());

// The kernel's debug dump, unchanged.
bool read_slab_debug_dump(std::string* out, const SlabDebugPaths& paths = SlabDebugPaths::Device());

}  // namespace tarvo::kestrel::memstat
