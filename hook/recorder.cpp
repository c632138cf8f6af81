// SPDX-License-Identifier: Apache-2.0
// The recorder's tables: live blocks in 64 shards of open addressing (linear probing, deletion
// by backward shift, so no tombstones pile up), distinct backtraces in 16 shards. Each shard has
// its own lock, so threads allocating at once rarely meet.
#include "hook/recorder.h"

#include <string.h>
#include <sys/mman.h>

#include <algorithm>

namespace kestrel_hook {
namespace {

uint64_t mix(uint64_t x) {
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ULL;
  x ^= x >> 33;
  return x;
}

uint64_t hash_frames(const uintptr_t* frames, int depth) {
  uint64_t h = static_cast<uint64_t>(depth);
  for (int i = 0; i < depth; ++i) h = mix(h ^ frames[i]);
  return h;
}

class Locked {
 public:
  explicit Locked(pthread_mutex_t* mu) : mu_(mu) { pthread_mutex_lock(mu_); }
  ~Locked() { pthread_mutex_unlock(mu_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  pthread_mutex_t* mu_;
};

}  // namespace

void sort_groups(std::vector<Group>* groups) {
  std::stable_sort(groups->begin(), groups->end(), [](const Group& a, const Group& b) {
    return a.bytes != b.bytes ? a.bytes > b.bytes : a.count > b.count;
  });
}

size_t Recorder::table_bytes() const {
  size_t bytes = sizeof(Slot) * kAllocShards * alloc_slots_ +
                 sizeof(Stack) * kStackShards * stack_slots_;
  return (bytes + 4095) & ~size_t{4095};
}

bool Recorder::enable() {
  Locked lock(&enable_lock_);
  if (slots_ == nullptr) {
    void* mem = mmap(nullptr, table_bytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                     -1, 0);
    if (mem == MAP_FAILED) return false;
    stacks_ = static_cast<Stack*>(mem);
    slots_ = reinterpret_cast<Slot*>(stacks_ + kStackShards * stack_slots_);
  }
  {
    // Stack 0 collects what arrives once the backtrace table is full.
    Locked stack_lock(&stack_lock_[0]);
    if (!stacks_[0].used) {
      stacks_[0].used = 1;
      stack_used_[0]++;
    }
  }
  recording_.store(true, std::memory_order_release);
  return true;
}

void Recorder::disable() {
  recording_.store(false, std::memory_order_release);
  epoch_.fetch_add(1, std::memory_order_acq_rel);
  lock_all();
  if (slots_ != nullptr) {
    // The pages read back as zeros, which is an empty table.
    madvise(stacks_, table_bytes(), MADV_DONTNEED);
  }
  memset(alloc_used_, 0, sizeof(alloc_used_));
  memset(stack_used_, 0, sizeof(stack_used_));
  unrecorded_.store(0, std::memory_order_relaxed);
  unlock_all();
}

void Recorder::lock_all() {
  pthread_mutex_lock(&enable_lock_);
  for (pthread_mutex_t& mu : stack_lock_) pthread_mutex_lock(&mu);
  for (pthread_mutex_t& mu : alloc_lock_) pthread_mutex_lock(&mu);
}

void Recorder::unlock_all() {
  for (pthread_mutex_t& mu : alloc_lock_) pthread_mutex_unlock(&mu);
  for (pthread_mutex_t& mu : stack_lock_) pthread_mutex_unlock(&mu);
  pthread_mutex_unlock(&enable_lock_);
}

uint32_t Recorder::intern(const uintptr_t* frames, int depth, uint32_t epoch) {
  depth = std::clamp(depth, 0, kMaxFrames);
  const uint64_t h = hash_frames(frames, depth);
  const uint32_t shard = static_cast<uint32_t>(h >> 60);
  const uint32_t mask = stack_slots_ - 1;
  Stack* table = stacks_ + shard * stack_slots_;
  Locked lock(&stack_lock_[shard]);
  if (epoch_.load(std::memory_order_acquire) != epoch) return kSkip;
  for (uint32_t i = static_cast<uint32_t>(h) & mask;; i = (i + 1) & mask) {
    Stack& s = table[i];
    const uint32_t id = shard * stack_slots_ + i;
    if (!s.used) {
      if (stack_used_[shard] >= max_stacks()) return 0;
      s.hash = h;
      s.depth = static_cast<uint32_t>(depth);
      memcpy(s.frames, frames, sizeof(uintptr_t) * depth);
      s.used = 1;
      stack_used_[shard]++;
      return id;
    }
    if (id != 0 && s.hash == h && s.depth == static_cast<uint32_t>(depth) &&
        memcmp(s.frames, frames, sizeof(uintptr_t) * depth) == 0) {
      return id;
    }
  }
}

void Recorder::insert(uintptr_t ptr, uint64_t size, uint32_t stack, uint32_t epoch) {
  const uint64_t h = mix(ptr);
  const uint32_t shard = static_cast<uint32_t>(h >> 58);
  const uint32_t mask = alloc_slots_ - 1;
  Slot* table = slots_ + shard * alloc_slots_;
  Locked lock(&alloc_lock_[shard]);
  if (epoch_.load(std::memory_order_acquire) != epoch) return;
  for (uint32_t i = static_cast<uint32_t>(h) & mask;; i = (i + 1) & mask) {
    Slot& s = table[i];
    if (s.ptr == ptr) {
      stacks_[s.stack].bytes.fetch_sub(s.size, std::memory_order_relaxed);
      stacks_[s.stack].count.fetch_sub(1, std::memory_order_relaxed);
    } else if (s.ptr == 0) {
      if (alloc_used_[shard] >= max_allocs()) {
        unrecorded_.fetch_add(1, std::memory_order_relaxed);
        return;
      }
      alloc_used_[shard]++;
    } else {
      continue;
    }
    s = {ptr, size, stack};
    stacks_[stack].bytes.fetch_add(size, std::memory_order_relaxed);
    stacks_[stack].count.fetch_add(1, std::memory_order_relaxed);
    return;
  }
}

void Recorder::record(const void* ptr, uint64_t size, const uintptr_t* frames, int depth) {
  if (!recording_.load(std::memory_order_acquire) || ptr == nullptr) return;
  const uint32_t epoch = epoch_.load(std::memory_order_acquire);
  const uint32_t stack = intern(frames, depth, epoch);
  if (stack == kSkip) return;
  insert(reinterpret_cast<uintptr_t>(ptr), size, stack, epoch);
}

bool Recorder::forget(const void* ptr, Block* block) {
  // Off, the tables are empty or about to be cleared; on, they are mapped.
  if (!recording_.load(std::memory_order_acquire) || ptr == nullptr) return false;
  const uintptr_t key = reinterpret_cast<uintptr_t>(ptr);
  const uint64_t h = mix(key);
  const uint32_t shard = static_cast<uint32_t>(h >> 58);
  const uint32_t mask = alloc_slots_ - 1;
  Slot* table = slots_ + shard * alloc_slots_;
  Locked lock(&alloc_lock_[shard]);
  uint32_t i = static_cast<uint32_t>(h) & mask;
  for (;; i = (i + 1) & mask) {
    if (table[i].ptr == 0) return false;
    if (table[i].ptr == key) break;
  }
  *block = {table[i].size, table[i].stack, epoch_.load(std::memory_order_acquire)};
  stacks_[block->stack].bytes.fetch_sub(block->size, std::memory_order_relaxed);
  stacks_[block->stack].count.fetch_sub(1, std::memory_order_relaxed);
  // Backward shift: pull later entries of the same probe run into the hole.
  for (uint32_t j = (i + 1) & mask; table[j].ptr != 0; j = (j + 1) & mask) {
    const uint32_t home = static_cast<uint32_t>(mix(table[j].ptr)) & mask;
    // Move j into the hole i when its home does not lie cyclically in (i, j].
    if (((j - home) & mask) >= ((j - i) & mask)) {
      table[i] = table[j];
      i = j;
    }
  }
  table[i] = {};
  alloc_used_[shard]--;
  return true;
}

void Recorder::restore(const void* ptr, const Block& block) {
  insert(reinterpret_cast<uintptr_t>(ptr), block.size, block.stack, block.epoch);
}

std::vector<Group> Recorder::groups() const {
  std::vector<Group> out;
  if (stacks_ == nullptr) return out;
  for (int shard = 0; shard < kStackShards; ++shard) {
    Locked lock(&stack_lock_[shard]);
    for (uint32_t i = 0; i < stack_slots_; ++i) {
      const Stack& s = stacks_[shard * stack_slots_ + i];
      const uint64_t count = s.count.load(std::memory_order_relaxed);
      if (!s.used || count == 0) continue;
      out.push_back({s.bytes.load(std::memory_order_relaxed), count,
                     std::vector<uintptr_t>(s.frames, s.frames + s.depth), shard == 0 && i == 0});
    }
  }
  return out;
}

RecorderStats Recorder::stats() const {
  RecorderStats st = {slots_ != nullptr ? table_bytes() : 0, 0, 0,
                      unrecorded_.load(std::memory_order_relaxed)};
  for (int i = 0; i < kAllocShards; ++i) {
    Locked lock(&alloc_lock_[i]);
    st.allocations += alloc_used_[i];
  }
  for (int i = 0; i < kStackShards; ++i) {
    Locked lock(&stack_lock_[i]);
    st.stacks += stack_used_[i];
  }
  if (st.stacks > 0) st.stacks--;  // the reserved stack 0
  return st;
}

}  // namespace kestrel_hook
