// SPDX-License-Identifier: Apache-2.0
// The allocation functions the preloaded hook puts in front of glibc's. Each one calls glibc's
// own allocator through the __libc_* entry points that glibc exports for exactly this (present
// on Debian 12's glibc 2.36 for amd64 and arm64): unlike dlsym(RTLD_NEXT), reaching them needs
// no lookup that itself allocates, so no bootstrap arena is needed before the hook is set up.
// Blocks keep glibc's layout (the recorder keeps its notes apart), so malloc_usable_size,
// malloc_trim and malloc_info stay glibc's and stay right.
#include <errno.h>
#include <malloc.h>
#include <stdint.h>
#include <stdlib.h>

#include "hook/hook.h"

extern "C" {
void* __libc_malloc(size_t size) noexcept;
void __libc_free(void* ptr) noexcept;
void* __libc_calloc(size_t count, size_t size) noexcept;
void* __libc_realloc(void* ptr, size_t size) noexcept;
void* __libc_memalign(size_t alignment, size_t size) noexcept;
void* __libc_valloc(size_t size) noexcept;
void* __libc_pvalloc(size_t size) noexcept;
}

namespace kestrel_hook {
namespace {

// Called after every successful allocation.
inline void note_allocation(void* ptr, size_t size) {
  if (__builtin_expect(g_worker_missing.load(std::memory_order_relaxed), 0) && t_in_hook == 0) {
    InHook in_hook;
    if (g_worker_missing.exchange(false)) start_worker();
  }
  if (!recorder().recording() || t_in_hook != 0) return;
  InHook in_hook;
  uintptr_t frames[kMaxFrames];
  const int depth = capture_backtrace(frames);
  recorder().record(ptr, size, frames, depth);
}

// Before the block goes back to glibc: once it has, another thread may get the same address.
inline void note_free(void* ptr) {
  Recorder::Block block;
  if (ptr != nullptr) recorder().forget(ptr, &block);
}

bool power_of_two(size_t n) { return (n & (n - 1)) == 0; }

}  // namespace
}  // namespace kestrel_hook

using kestrel_hook::note_allocation;
using kestrel_hook::note_free;
using kestrel_hook::recorder;

extern "C" {

__attribute__((visibility("default"))) void* malloc(size_t size) noexcept {
  void* p = __libc_malloc(size);
  if (p != nullptr) note_allocation(p, size);
  return p;
}

__attribute__((visibility("default"))) void free(void* ptr) noexcept {
  note_free(ptr);
  __libc_free(ptr);
}

__attribute__((visibility("default"))) void* calloc(size_t count, size_t size) noexcept {
  void* p = __libc_calloc(count, size);
  if (p != nullptr) note_allocation(p, count * size);  // no overflow, or glibc had failed
  return p;
}

// The old block is forgotten before glibc may free it; a failed realloc leaves it in place, so
// it is put back.
__attribute__((visibility("default"))) void* realloc(void* ptr, size_t size) noexcept {
  kestrel_hook::Recorder::Block block;
  const bool had = ptr != nullptr && recorder().forget(ptr, &block);
  void* p = __libc_realloc(ptr, size);
  if (p != nullptr) {
    note_allocation(p, size);
  } else if (had && size != 0) {
    recorder().restore(ptr, block);
  }
  return p;
}

__attribute__((visibility("default"))) void* reallocarray(void* ptr, size_t count,
                                                          size_t size) noexcept {
  size_t bytes;
  if (__builtin_mul_overflow(count, size, &bytes)) {
    errno = ENOMEM;
    return nullptr;
  }
  return realloc(ptr, bytes);
}

__attribute__((visibility("default"))) void* memalign(size_t alignment, size_t size) noexcept {
  void* p = __libc_memalign(alignment, size);
  if (p != nullptr) note_allocation(p, size);
  return p;
}

// glibc 2.36 asks only for a power of two here.
__attribute__((visibility("default"))) void* aligned_alloc(size_t alignment, size_t size) noexcept {
  if (!kestrel_hook::power_of_two(alignment)) {
    errno = EINVAL;
    return nullptr;
  }
  return memalign(alignment, size);
}

__attribute__((visibility("default"))) int posix_memalign(void** out, size_t alignment,
                                                          size_t size) noexcept {
  if (alignment == 0 || alignment % sizeof(void*) != 0 ||
      !kestrel_hook::power_of_two(alignment / sizeof(void*))) {
    return EINVAL;
  }
  void* p = __libc_memalign(alignment, size);
  if (p == nullptr) return ENOMEM;
  note_allocation(p, size);
  *out = p;
  return 0;
}

__attribute__((visibility("default"))) void* valloc(size_t size) noexcept {
  void* p = __libc_valloc(size);
  if (p != nullptr) note_allocation(p, size);
  return p;
}

__attribute__((visibility("default"))) void* pvalloc(size_t size) noexcept {
  void* p = __libc_pvalloc(size);
  if (p != nullptr) note_allocation(p, size);
  return p;
}

}  // extern "C"
