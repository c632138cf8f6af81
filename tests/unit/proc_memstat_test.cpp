// SPDX-License-Identifier: Apache-2.0
// The smaps walk on small fixture files and the argument checks of the three driver requests with
// the lines they log. fuzz/smaps_key_fuzzer.cpp holds the walk's line scanner to sscanf.
#include <errno.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libs/kestrel/proc-memstat.h"
#include "tests/support/log_capture.h"

using namespace tarvo::kestrel::memstat;

namespace {

const std::string kFixtures = std::string(KESTREL_FIXTURES) + "/meminfo/";

// native.smaps: libc_malloc 25+5, a plain mapping 8, scudo:primary 10, GWP-ASan 2, scudo_other 4.
// java.smaps: main space 100+3, boot.art 50, large object 20, free list 4, non moving 8,
// zygote 16, "alloc space]" 250, "alloc space" 1, "alloc spaces" 500.
// rounding.smaps: Pss 7 kB, SwapPss 3 kB, Pss 5 kB, SwapPss 6 kB; Pss_* and Swap do not count.
// The long line file: a 300 KiB name line longer than any single read, no final newline.
TEST(SmapsWalk, AddsPagesByMappingNameToDriverFigures) {
  const std::string long_line = testing::TempDir() + "long_line.smaps";
  std::ofstream(long_line) << "7a00-7b00 rw-p 00000000 00:00 0\nPss: 4 kB\n"
                           << "Name: [anon:libc_malloc" << std::string(300 * 1024, 'x')
                           << "]\nPss: 8 kB\n7c00-7d00 rw-p 00000000 00:00 0\nPss: 12 kB";
  struct { std::string path; int flags; uint32_t pss, java_heap, native_heap; } const cases[] = {
      {kFixtures + "native.smaps", kStatNativeHeap, 54, 0, 42},
      {kFixtures + "native.smaps", kStatJavaHeap, 54, 0, 0},
      {kFixtures + "java.smaps", kStatJavaHeap, 952, 152, 0},
      {kFixtures + "java.smaps", kStatPss, 952, 0, 0},
      {kFixtures + "rounding.smaps", kStatSmapsGroup, 3, 0, 0},
      {long_line, kStatNativeHeap, 6, 0, 2},
      {"", kStatPss, 0, 0, 0},  // the default path: this process's own smaps, some pss
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " flags " + std::to_string(c.flags));
    proc_ms ms = {.pss = 1000, .java_heap = 100, .native_heap = 10};
    ASSERT_TRUE(iterate_vma(getpid(), c.flags, &ms, c.path));
    EXPECT_EQ(ms.java_heap, 100 + c.java_heap);
    EXPECT_EQ(ms.native_heap, 10 + c.native_heap);
    if (c.path.empty()) EXPECT_GT(ms.pss, 1000u); else EXPECT_EQ(ms.pss, 1000 + c.pss);
  }
  unlink(long_line.c_str());
  proc_ms ms = {};
  EXPECT_FALSE(iterate_vma(1, kStatPss, &ms, kFixtures + "no-such.smaps"));
  EXPECT_EQ(errno, ENOENT);
}

TEST(MemStatRequests, BadArgumentsFailWithTheirLogLines) {
  // Two lines: the request passed its checks and tried the driver, which a build machine lacks.
  const std::vector<std::string> kNoDriver = {
      "util.cpp:26 Failed to open /dev/kestrel:No such file or directory\n",
      "proc-memstat.cpp:N Helper init failed.\n"};
  struct Request { char which; unsigned flags; unsigned long arg; std::vector<std::string> log; };
  const Request cases[] = {
      {'P', 0x40000, 1, {"proc-memstat.cpp:N Invalid argument flag 0x40000\n"}},
      {'S', kStatAll, 0, {"proc-memstat.cpp:N Invalid size 0x0\n"}},
      {'S', kStatAll, 401, {"proc-memstat.cpp:N Invalid size 0x401\n"}},
      {'S', kStatAll, 400, kNoDriver},
      {'U', kStatUid, 0, kNoDriver},
  };
  const std::regex line_number("^proc-memstat\\.cpp:[0-9]+ ");
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(1, c.which) + " " + std::to_string(c.arg));
    ProcMemStatHelper helper;
    helper.capacity = 400;
    kestrel_test::clear_log();
    EXPECT_FALSE(c.which == 'P'   ? ProcMemStat::PidMemStat(helper, c.flags, int(c.arg))
                 : c.which == 'U' ? ProcMemStat::UidSizeMemStats(helper, c.flags, c.arg)
                                    : ProcMemStat::SizeMemStats(helper, c.flags, c.arg));
    std::vector<std::string> log;
    for (const kestrel_test::LogLine& l : kestrel_test::logged()) {
      log.push_back(std::regex_replace(l.message, line_number, "proc-memstat.cpp:N "));
    }
    EXPECT_EQ(log, c.log);
  }
}

}  // namespace
