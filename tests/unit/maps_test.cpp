// The maps reader: every field of a mapping line, names with blanks, lines that are not
// mappings, the caller's buffer, and the walk over this process's own /proc/<pid>/maps.
#include <stdint.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "platform/log.h"
#include "platform/meminfo.h"
#include "tests/support/log_capture.h"

namespace {

using android::meminfo::ForEachVmaFromFile;
using android::meminfo::ProcMemInfo;
using android::meminfo::Vma;

constexpr uint16_t R = android::meminfo::kVmaRead;
constexpr uint16_t W = android::meminfo::kVmaWrite;
constexpr uint16_t X = android::meminfo::kVmaExec;

std::string fixture(const char* name) { return std::string(KESTREL_FIXTURES) + "/compact/" + name; }

auto fields(const Vma& v) { return std::tie(v.start, v.end, v.offset, v.flags, v.inode, v.name); }

struct Walk {
  bool ok = false;
  std::vector<Vma> vmas;
};

Walk walk(const std::string& path, std::string& buffer, size_t stop_after = SIZE_MAX) {
  Walk w;
  w.ok = ForEachVmaFromFile(
      path,
      [&](const Vma& vma) {
        w.vmas.push_back(vma);
        return w.vmas.size() < stop_after;
      },
      buffer);
  return w;
}

void expect_vmas(const std::vector<Vma>& got, const std::vector<Vma>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); i++) {
    EXPECT_EQ(fields(got[i]), fields(want[i])) << "mapping " << i;
  }
}

TEST(MapsReader, ReadsEveryFieldAndLeavesOutTheVsyscallPage) {
  std::string buffer;
  Walk w = walk(fixture("maps_sample"), buffer);
  EXPECT_TRUE(w.ok);
  expect_vmas(w.vmas, {
      {0x5581e4a00000, 0x5581e4a02000, 0, R, 1317021, "/usr/bin/sleep"},
      {0x5581e4a02000, 0x5581e4a07000, 0x2000, R | X, 1317021, "/usr/bin/sleep"},
      {0x5581e4a0b000, 0x5581e4a0c000, 0xa000, R | W, 1317021, "/usr/bin/sleep"},
      {0x5581e6000000, 0x5581e6021000, 0, R | W, 0, "[heap]"},
      {0x7f3a10000000, 0x7f3a10100000, 0, R | W, 2050, "/dev/zero (deleted)"},
      {0x7f3a10200000, 0x7f3a10201000, 0, W, 0, ""},
      {0x7f3a10300000, 0x7f3a10400000, 0, 0, 0, ""},
      {0x7f3a10400000, 0x7f3a10401000, 0x1000, R, 4294967301, "/data/app/My App/base.apk"},
      {0x7ffc1a2b3000, 0x7ffc1a2d4000, 0, R | W, 0, "[stack]"},
      {0x7ffc1a3f0000, 0x7ffc1a3f4000, 0, R, 0, "[vvar]"},
      {0x7ffc1a3f4000, 0x7ffc1a3f6000, 0, R | X, 0, "[vdso]"},
  });
}

// The last line of this fixture has no newline: a file cut short still yields its last mapping.
TEST(MapsReader, SkipsLinesThatAreNotMappingsAndReportsTheFirst) {
  kestrel_test::clear_log();
  std::string buffer;
  const std::string path = fixture("maps_malformed");
  Walk w = walk(path, buffer);
  EXPECT_FALSE(w.ok);
  expect_vmas(w.vmas, {
      {0x400000, 0x401000, 0, R | X, 17, "/bin/a"},
      {0x409000, 0x40a000, 0, R | W, 0, ""},
  });
  const auto log = kestrel_test::logged();
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(log[0].tag, "kestrel");
  const std::string tail = " " + path + ":2 is not a mapping";
  EXPECT_TRUE(log[0].message.starts_with("meminfo")) << log[0].message;
  EXPECT_TRUE(log[0].message.ends_with(tail)) << log[0].message;
}

TEST(MapsReader, CallbackEndsTheWalkWithoutFailing) {
  std::string buffer;
  Walk w = walk(fixture("maps_sample"), buffer, 2);
  EXPECT_TRUE(w.ok);
  EXPECT_EQ(w.vmas.size(), 2u);
}

TEST(MapsReader, MissingFileFailsWithoutCallingBack) {
  kestrel_test::clear_log();
  std::string buffer = "old text";
  Walk w = walk(fixture("no_such_maps"), buffer);
  EXPECT_FALSE(w.ok);
  EXPECT_TRUE(w.vmas.empty());
  EXPECT_EQ(kestrel_test::logged().size(), 1u);
}

TEST(MapsReader, BufferKeepsItsStorageAcrossWalks) {
  std::string buffer;
  Walk first = walk(fixture("maps_sample"), buffer);
  const size_t capacity = buffer.capacity();
  const char* storage = buffer.data();
  Walk second = walk(fixture("maps_malformed"), buffer);
  Walk third = walk(fixture("maps_sample"), buffer);
  EXPECT_EQ(buffer.capacity(), capacity);
  EXPECT_EQ(buffer.data(), storage);
  ASSERT_EQ(second.vmas.size(), 2u);
  expect_vmas(third.vmas, first.vmas);
}

// The default path is this process's own maps: the stack variable and this function must lie
// in mappings with the right protection.
TEST(MapsReader, ProcMemInfoWalksOwnProcess) {
  const auto stack_address = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  const auto code_address = reinterpret_cast<uintptr_t>(&walk);
  Vma stack, code;
  std::string buffer;
  ProcMemInfo meminfo(getpid());
  EXPECT_EQ(meminfo.maps_path(), "/proc/" + std::to_string(getpid()) + "/maps");
  ASSERT_TRUE(meminfo.ForEachVmaFromMaps(
      [&](const Vma& vma) {
        if (vma.start <= stack_address && stack_address < vma.end) stack = vma;
        if (vma.start <= code_address && code_address < vma.end) code = vma;
        return true;
      },
      buffer));
  EXPECT_EQ(stack.flags, R | W);
  EXPECT_EQ(stack.name, "[stack]");
  EXPECT_EQ(code.flags, R | X);
  EXPECT_NE(code.inode, 0u);
}

}  // namespace
