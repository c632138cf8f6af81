// SPDX-License-Identifier: Apache-2.0
// The allocator hook's recorder and record texts: grouping and order of a dump, the bound on
// what the recorder holds, threads recording at once, and the cutting of long texts into
// records the driver takes.

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "hook/recorder.h"
#include "hook/report.h"

namespace kestrel_hook {
namespace {

using Frames = std::vector<uintptr_t>;

void* at(uintptr_t address) { return reinterpret_cast<void*>(address); }

void record(Recorder* r, uintptr_t address, uint64_t size, const Frames& frames) {
  r->record(at(address), size, frames.data(), static_cast<int>(frames.size()));
}

std::vector<std::string> summary(std::vector<Group> groups) {
  sort_groups(&groups);
  std::vector<std::string> out;
  for (const Group& g : groups) {
    std::string line = std::to_string(g.bytes) + "/" + std::to_string(g.count) + ":";
    for (uintptr_t f : g.frames) line += " " + std::to_string(f);
    out.push_back(line);
  }
  return out;
}

// Blocks group by identical backtrace, largest total first; a freed block leaves its group and
// a block seen again at a live address replaces the old one.
TEST(HookRecorder, GroupsByBacktraceLargestFirst) {
  static Recorder r(64, 16);
  ASSERT_TRUE(r.enable());
  const Frames a = {10, 11, 12}, b = {20, 21}, c = {10, 11};
  record(&r, 0x1000, 100, a);
  record(&r, 0x2000, 300, b);
  record(&r, 0x3000, 50, a);
  record(&r, 0x4000, 7, c);
  record(&r, 0x5000, 400, c);
  Recorder::Block block;
  EXPECT_TRUE(r.forget(at(0x5000), &block));
  EXPECT_FALSE(r.forget(at(0x5000), &block));
  record(&r, 0x3000, 250, a);  // freed behind the hook's back, then handed out again
  EXPECT_EQ(summary(r.groups()),
            (std::vector<std::string>{"350/2: 10 11 12", "300/1: 20 21", "7/1: 10 11"}));
  EXPECT_EQ(r.stats().allocations, 4u);
  EXPECT_EQ(r.stats().stacks, 3u);

  r.disable();
  record(&r, 0x6000, 1, a);
  EXPECT_TRUE(r.groups().empty());
  ASSERT_TRUE(r.enable());
  record(&r, 0x6000, 9, b);
  EXPECT_EQ(summary(r.groups()), (std::vector<std::string>{"9/1: 20 21"}));
}

// Full tables never grow: blocks past the bound are counted as not recorded, backtraces past it
// are filed under the empty backtrace, and what is recorded leaves when it is freed.
TEST(HookRecorder, StaysWithinItsBound) {
  static Recorder r(4, 4);  // 3 blocks per shard of 64, 3 backtraces per shard of 16
  ASSERT_TRUE(r.enable());
  for (uintptr_t i = 1; i <= 1000; ++i) record(&r, i * 16, i, Frames{i});
  RecorderStats st = r.stats();
  EXPECT_EQ(st.allocations, 64u * 3);
  EXPECT_EQ(st.unrecorded, 1000u - 64 * 3);
  EXPECT_LE(st.stacks, 16u * 3);
  bool overflow = false;
  for (const Group& g : r.groups()) overflow |= g.table_full && g.frames.empty();
  EXPECT_TRUE(overflow);
  for (uintptr_t i = 1; i <= 1000; ++i) {
    Recorder::Block block;
    r.forget(at(i * 16), &block);
  }
  EXPECT_TRUE(r.groups().empty());
}

// Threads recording and freeing at once lose nothing and leave nothing behind.
TEST(HookRecorder, ThreadsRecordAtOnce) {
  static Recorder r(4096, 64);
  ASSERT_TRUE(r.enable());
  std::vector<std::thread> threads;
  for (uintptr_t t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (uintptr_t i = 0; i < 20000; ++i) {
        const uintptr_t address = (t << 32) | (i * 16 + 16);
        record(&r, address, 1, Frames{t, i % 8});
        Recorder::Block block;
        if (i % 2 == 0 && !r.forget(at(address), &block)) ADD_FAILURE() << address;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  uint64_t count = 0;
  for (const Group& g : r.groups()) count += g.count;
  EXPECT_EQ(count, 4u * 10000);
}

std::string payload(const std::string& message) {
  return std::string("\4malloc_debug\0", 14) + message + std::string(1, '\0');
}

// Texts are cut at line ends into payloads the driver takes whole; a line too long for one
// payload is cut inside; nothing is lost or added but the newlines at the cuts.
TEST(HookRecords, LongTextsAreCutIntoRecords) {
  const std::string line(1000, 'x'), long_line(9000, 'y');
  std::string lines = line;
  for (int i = 1; i < 9; ++i) lines += "\n" + line;
  const std::string four_lines = lines.substr(0, 4 * 1001 - 1);
  const size_t room = kMaxPayload - 15;
  const struct { std::string text; std::vector<std::string> payloads; } cases[] = {
      {lines, {payload(four_lines), payload(four_lines), payload(line)}},
      {long_line, {payload(long_line.substr(0, room)), payload(long_line.substr(room, room)),
                   payload(long_line.substr(2 * room))}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.size());
    EXPECT_EQ(to_payloads(c.text), c.payloads);
  }
}

// The dump: a summary, one text per group largest first with its frames, the closing line.
TEST(HookRecords, DumpTexts) {
  const RecorderStats stats = {11010048, 8, 3, 2};
  std::vector<Group> groups = {{35000, 5, {}, true}, {120000, 3, {0x10}}};
  EXPECT_EQ(dump_texts(groups, stats, true),
            (std::vector<std::string>{
                "155000 bytes in 8 allocations from 2 backtraces",
                "120000 bytes in 3 allocations\n  #00 pc 0000000000000010  <unknown>",
                "35000 bytes in 5 allocations (no backtrace: the backtrace table was full)",
                "END of malloc debug dump: the recorder holds 8 allocations and 3 backtraces in "
                "10752 KiB; 2 allocations not recorded"}));
}

}  // namespace
}  // namespace kestrel_hook
