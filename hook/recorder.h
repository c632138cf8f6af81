// SPDX-License-Identifier: Apache-2.0
// The allocation recorder of the malloc hook: which blocks are live, how big they are and which
// backtrace made them. It lives in fixed tables mapped once at the first enable, so its memory is
// bounded and it never calls the allocator it watches.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <vector>

namespace kestrel_hook {

// Frames kept per backtrace, counted from the caller of the allocation function.
inline constexpr int kMaxFrames = 32;

// One distinct backtrace and the live bytes and blocks that carry it.
struct Stack {
  uint64_t hash;
  uint32_t depth;
  uint32_t used;  // 0 while the slot is free
  std::atomic<uint64_t> bytes;
  std::atomic<uint64_t> count;
  uintptr_t frames[kMaxFrames];
};

// A snapshot of one backtrace with live allocations, for the dump.
struct Group {
  uint64_t bytes;
  uint64_t count;
  std::vector<uintptr_t> frames;
  bool table_full = false;  // blocks that came when the backtrace table had no room
};

// Sorts groups by total bytes, then by count, largest first; equal ones keep their order.
void sort_groups(std::vector<Group>* groups);

// What the recorder holds, for the dump's last line.
struct RecorderStats {
  size_t table_bytes;    // memory mapped for the tables (the bound)
  size_t allocations;    // live allocations recorded
  size_t stacks;         // distinct backtraces held
  uint64_t unrecorded;   // allocations not recorded because a table was full
};

class Recorder {
 public:
  // Shards are fixed; the slots per shard set the bound. Both slot counts are powers of two.
  static constexpr int kAllocShards = 64;
  static constexpr int kStackShards = 16;

  constexpr Recorder(uint32_t alloc_slots_per_shard, uint32_t stack_slots_per_shard)
      : alloc_slots_(alloc_slots_per_shard), stack_slots_(stack_slots_per_shard) {}
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Maps the tables on first use and starts recording; false when they cannot be mapped.
  bool enable();
  // Stops recording and gives the tables' pages back to the kernel. The mapping stays, so an
  // allocation still on its way through record() never touches unmapped memory.
  void disable();
  bool recording() const { return recording_.load(std::memory_order_relaxed); }

  // Records a new block with its backtrace (frames[0] is the innermost caller). A block already
  // recorded at the same address (freed by a path the hook does not see) is replaced.
  void record(const void* ptr, uint64_t size, const uintptr_t* frames, int depth);
  // What forget() took out, so that a failed realloc can put the block back.
  struct Block {
    uint64_t size;
    uint32_t stack;
    uint32_t epoch;
  };
  // Forgets a block; false when it was not recorded.
  bool forget(const void* ptr, Block* block);
  void restore(const void* ptr, const Block& block);

  // Live allocations grouped by backtrace, unsorted.
  std::vector<Group> groups() const;
  RecorderStats stats() const;

  // Held across fork() so that the child never inherits a table in mid-update.
  void lock_all();
  void unlock_all();

 private:
  struct Slot {
    uintptr_t ptr;  // 0: free
    uint64_t size;
    uint32_t stack;
  };
  static_assert(sizeof(Slot) == 24);

  static constexpr uint32_t kSkip = UINT32_MAX;  // intern(): the epoch moved on
  uint32_t intern(const uintptr_t* frames, int depth, uint32_t epoch);
  void insert(uintptr_t ptr, uint64_t size, uint32_t stack, uint32_t epoch);
  size_t table_bytes() const;
  uint32_t max_allocs() const { return alloc_slots_ / 4 * 3; }
  uint32_t max_stacks() const { return stack_slots_ / 4 * 3; }

  const uint32_t alloc_slots_;
  const uint32_t stack_slots_;
  std::atomic<bool> recording_{false};
  // Moves on at every disable: an allocation that began under an older epoch is dropped, so a
  // disable racing with it cannot leave a stale entry behind.
  std::atomic<uint32_t> epoch_{1};
  std::atomic<uint64_t> unrecorded_{0};
  Slot* slots_ = nullptr;    // kAllocShards * alloc_slots_
  Stack* stacks_ = nullptr;  // kStackShards * stack_slots_; stack 0 is "backtrace table full"
  uint32_t alloc_used_[kAllocShards] = {};
  uint32_t stack_used_[kStackShards] = {};
  mutable pthread_mutex_t alloc_lock_[kAllocShards] = {};
  mutable pthread_mutex_t stack_lock_[kStackShards] = {};
  pthread_mutex_t enable_lock_ = PTHREAD_MUTEX_INITIALIZER;
};

}  // namespace kestrel_hook
