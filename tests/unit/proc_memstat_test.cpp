// The smaps walk on small fixture files, its line scanner held to sscanf("%63s %n") on generated
// lines, and the argument checks of the three driver requests with the lines they log.
#include <errno.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libs/kestrel/proc-memstat.h"
#include "tests/support/log_capture.h"

using namespace tarvo::kestrel::memstat;

namespace {

const std::string kFixtures = std::string(KESTREL_FIXTURES) + "/meminfo/";

// The driver's figures the walk must add to, never replace.
constexpr uint32_t kDriverPss = 1000, kDriverJava = 100, kDriverNative = 10;

struct WalkCase {
  const char* name;
  const char* fixture;
  int flags;
  uint32_t pss, java_heap, native_heap;  // pages added by the walk
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const WalkCase& c, std::ostream* os) { *os << c.name; }

// native.smaps: libc_malloc 25+5, a plain mapping 8, scudo:primary 10, GWP-ASan 2, scudo_other 4.
// java.smaps: main space 100+3, boot.art 50, large object 20, free list 4, non moving 8,
// zygote 16, "alloc space]" 250, "alloc space" 1, "alloc spaces" 500.
// rounding.smaps: Pss 7 kB, SwapPss 3 kB, Pss 5 kB, SwapPss 6 kB; Pss_* and Swap do not count.
const WalkCase kWalkCases[] = {
    {"NativeNamesCountAsNativeHeap", "native.smaps", kStatNativeHeap, 54, 0, 42},
    {"NativeNamesCountNowhereWithOnlyJava", "native.smaps", kStatJavaHeap, 54, 0, 0},
    {"JavaNamesCountAsJavaHeap", "java.smaps", kStatJavaHeap, 952, 152, 0},
    {"OnlyPssClassifiesNothing", "java.smaps", kStatPss, 952, 0, 0},
    {"PssAndSwapPssRoundDownToPages", "rounding.smaps", kStatSmapsGroup, 3, 0, 0},
    {"EmptyFileKeepsDriverFigures", "empty.smaps", kStatSmapsGroup, 0, 0, 0},
};

class SmapsWalkFixtures : public testing::TestWithParam<WalkCase> {};

TEST_P(SmapsWalkFixtures, AddsToDriverFigures) {
  const WalkCase& c = GetParam();
  proc_ms ms = {};
  ms.pss = kDriverPss;
  ms.java_heap = kDriverJava;
  ms.native_heap = kDriverNative;
  ASSERT_TRUE(iterate_vma(1, c.flags, &ms, kFixtures + c.fixture));
  EXPECT_EQ(ms.pss, kDriverPss + c.pss);
  EXPECT_EQ(ms.java_heap, kDriverJava + c.java_heap);
  EXPECT_EQ(ms.native_heap, kDriverNative + c.native_heap);
}

INSTANTIATE_TEST_SUITE_P(Fixtures, SmapsWalkFixtures, testing::ValuesIn(kWalkCases),
                         [](const testing::TestParamInfo<WalkCase>& tp) {
                           return std::string(tp.param.name);
                         });

TEST(SmapsWalkFile, MissingFileFailsWithErrno) {
  proc_ms ms = {};
  errno = 0;
  EXPECT_FALSE(iterate_vma(1, kStatPss, &ms, kFixtures + "no-such.smaps"));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(ms.pss, 0u);
}

// The default path is the process's own smaps; every running process has some pss.
TEST(SmapsWalkFile, DefaultPathReadsProcPidSmaps) {
  proc_ms ms = {};
  ASSERT_TRUE(iterate_vma(getpid(), kStatPss, &ms));
  EXPECT_GT(ms.pss, 0u);
}

// A line and its mapping name longer than any read the walk makes at once must still be seen
// whole: a 300 KiB name line between two Pss lines of a heap mapping.
TEST(SmapsWalkFile, LineLongerThanReadBuffer) {
  std::string path = testing::TempDir() + "long_line.smaps";
  FILE* f = fopen(path.c_str(), "we");
  ASSERT_NE(f, nullptr);
  fprintf(f, "7a00-7b00 rw-p 00000000 00:00 0\nPss: 4 kB\nName: [anon:libc_malloc%s]\n",
          std::string(300 * 1024, 'x').c_str());
  fprintf(f, "Pss: 8 kB\n7c00-7d00 rw-p 00000000 00:00 0\nPss: 12 kB");  // no final newline
  fclose(f);
  proc_ms ms = {};
  ASSERT_TRUE(iterate_vma(1, kStatNativeHeap, &ms, path));
  EXPECT_EQ(ms.pss, 6u);
  EXPECT_EQ(ms.native_heap, 2u);
  unlink(path.c_str());
}

// The reference form of the line scanner.
struct ScanResult {
  bool ok;
  std::string key;
  size_t value;
  bool operator==(const ScanResult&) const = default;
};

ScanResult scan_with_sscanf(const char* line) {
  char token[128] = {};
  int offset = -1;
  if (sscanf(line, "%63s %n", token, &offset) != 1) return {false, "", 0};
  return {true, token, static_cast<size_t>(offset)};
}

ScanResult scan_fast(const char* line) {
  SmapsKey key;
  if (!scan_smaps_key(line, &key)) return {false, "", 0};
  return {true, std::string(key.key, key.len), key.value};
}

std::string printable(const std::string& s) {
  std::string out;
  for (unsigned char c : s) {
    char hex[8];
    snprintf(hex, sizeof(hex), c >= 0x20 && c < 0x7f ? "%c" : "\\x%02x", c);
    out += hex;
  }
  return out;
}

TEST(SmapsKeyScanner, MatchesSscanf) {
  // Keys around the 63-character limit, then generated lines.
  std::vector<std::string> lines = {
      "Pss:", "Pss: \n", " \t\n", std::string(62, 'k') + ":  7 kB", std::string(63, 'k') + ": 7",
      std::string(70, 'k') + ": 7"};
  // Every byte class the scanner decides on: each white space of the C locale, the key's colon,
  // the letters the walk switches on, digits, control and high bytes. The share of blanks varies
  // from line to line so that keys of every length turn up.
  const std::string blanks = " \t\n\v\f\r";
  const std::string others = ":PSNsw0123456789kB[]_-\x01\x1f\x7f\x80\xa0\xff";
  std::mt19937 rng(20240611);
  for (int i = 0; i < 40000; i++) {
    size_t len = rng() % 161;
    unsigned blank_percent = rng() % 60;
    std::string line;
    for (size_t j = 0; j < len; j++) {
      const std::string& pool = rng() % 100 < blank_percent ? blanks : others;
      line += pool[rng() % pool.size()];
    }
    lines.push_back(line);
  }
  for (const std::string& line : lines) {
    ASSERT_EQ(scan_fast(line.c_str()), scan_with_sscanf(line.c_str())) << printable(line);
  }
}

// "proc-memstat.cpp:123 msg" with the line number, which moves with the code, made "N".
std::vector<std::string> logged_messages() {
  static const std::regex line_number("^proc-memstat\\.cpp:[0-9]+ ");
  std::vector<std::string> out;
  for (const kestrel_test::LogLine& l : kestrel_test::logged()) {
    EXPECT_EQ(l.priority, 6) << l.message;
    EXPECT_EQ(l.tag, "kestrel") << l.message;
    out.push_back(std::regex_replace(l.message, line_number, "proc-memstat.cpp:N "));
  }
  return out;
}

bool device_present() {
  struct stat st;
  return stat("/dev/kestrel", &st) == 0;
}

struct RequestCase {
  const char* name;
  bool (*request)(ProcMemStatHelper& helper);
  bool needs_no_device;  // the case reaches the driver open, which must fail here
  std::vector<std::string> log;
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const RequestCase& c, std::ostream* os) { *os << c.name; }

const std::string kNoDevice = "util.cpp:26 Failed to open /dev/kestrel:No such file or directory\n";
const std::string kInitFailed = "proc-memstat.cpp:N Helper init failed.\n";

const RequestCase kRequestCases[] = {
    {"PidRejectsMaskWithoutMeaningfulBit",
     [](ProcMemStatHelper& h) { return ProcMemStat::PidMemStat(h, 0x40000, 1); }, false,
     {"proc-memstat.cpp:N Invalid argument flag 0x40000\n"}},
    {"UidRejectsMaskWithoutMeaningfulBit",
     [](ProcMemStatHelper& h) { return ProcMemStat::UidSizeMemStats(h, 0xfffc0000, 1000); },
     false, {"proc-memstat.cpp:N Invalid argument flag 0xfffc0000\n"}},
    {"SizeZeroRejectedBeforeDriver",
     [](ProcMemStatHelper& h) { return ProcMemStat::SizeMemStats(h, kStatAll, 0); }, false,
     {"proc-memstat.cpp:N Invalid size 0x0\n"}},
    {"Size401RejectedBeforeDriver",
     [](ProcMemStatHelper& h) { return ProcMemStat::SizeMemStats(h, kStatAll, 401); }, false,
     {"proc-memstat.cpp:N Invalid size 0x401\n"}},
    {"Size400GoesToDriver",
     [](ProcMemStatHelper& h) { return ProcMemStat::SizeMemStats(h, kStatAll, 400); }, true,
     {kNoDevice, kInitFailed}},
    {"UidWithoutDriverFailsInit",
     [](ProcMemStatHelper& h) { return ProcMemStat::UidSizeMemStats(h, kStatUid, 0); }, true,
     {kNoDevice, kInitFailed}},
};

class RequestChecks : public testing::TestWithParam<RequestCase> {};

TEST_P(RequestChecks, FailWithTheirLogLines) {
  const RequestCase& c = GetParam();
  if (c.needs_no_device && device_present()) GTEST_SKIP() << "/dev/kestrel exists on this machine";
  ProcMemStatHelper helper;
  helper.capacity = 400;
  kestrel_test::clear_log();
  EXPECT_FALSE(c.request(helper));
  EXPECT_EQ(logged_messages(), c.log);
  // Nothing was allocated for a request that never reached the driver.
  EXPECT_EQ(helper.fd, -1);
  EXPECT_EQ(helper.pid_ms, nullptr);
  EXPECT_EQ(helper.size_msu, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Arguments, RequestChecks, testing::ValuesIn(kRequestCases),
                         [](const testing::TestParamInfo<RequestCase>& tp) {
                           return std::string(tp.param.name);
                         });

}  // namespace
