// Compaction below the command line: how mappings are cut into process_madvise batches, how
// each answer of the kernel moves the batch on, and which mappings each kind collects. The two
// system calls are replaced by a fake kernel that records every call and answers from a script.
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <unistd.h>

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "cmds/compact.h"

namespace {

using android::meminfo::Vma;

const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
// What the kernel takes in one call: 2 GiB less one page.
const uint64_t kLimit = (uint64_t{1} << 31) - kPage;

using Range = std::pair<uint64_t, uint64_t>;  // base, length
using Ranges = std::vector<Range>;

struct Call {
  int pidfd;
  int advice;
  unsigned flags;
  Ranges ranges;
};

// One scripted answer: a byte count, or -1 with an errno. kWhole answers with every byte asked.
struct Reply {
  ssize_t value;
  int err = 0;
};
constexpr ssize_t kWhole = -2;
constexpr size_t kMaxCalls = 100;

struct FakeKernel {
  std::vector<Call> calls;
  std::deque<Reply> replies;
  std::vector<pid_t> opened;  // pids given to pidfd_open
  std::vector<int> fds;       // descriptors handed out
  int open_errno = 0;
};

FakeKernel* g_kernel = nullptr;

int fake_pidfd_open(pid_t pid, unsigned int) {
  g_kernel->opened.push_back(pid);
  if (g_kernel->open_errno != 0) {
    errno = g_kernel->open_errno;
    return -1;
  }
  int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
  g_kernel->fds.push_back(fd);
  return fd;
}

ssize_t fake_process_madvise(int pidfd, const iovec* iov, size_t count, int advice,
                             unsigned int flags) {
  Call call{pidfd, advice, flags, {}};
  ssize_t whole = 0;
  for (size_t i = 0; i < count; i++) {
    call.ranges.emplace_back(reinterpret_cast<uintptr_t>(iov[i].iov_base), iov[i].iov_len);
    whole += static_cast<ssize_t>(iov[i].iov_len);
  }
  g_kernel->calls.push_back(std::move(call));
  // A batch that never empties would loop for ever; end it with an error no case expects.
  if (g_kernel->calls.size() > kMaxCalls) {
    errno = E2BIG;
    return -1;
  }
  Reply reply{kWhole};
  if (!g_kernel->replies.empty()) {
    reply = g_kernel->replies.front();
    g_kernel->replies.pop_front();
  }
  if (reply.value == kWhole) return whole;
  errno = reply.err;
  return reply.value;
}

Vma mapping(uint64_t start, uint64_t length) {
  Vma vma;
  vma.start = start;
  vma.end = start + length;
  return vma;
}

// `n` one-page mappings, two pages apart.
std::vector<Vma> pages(size_t n, uint64_t base = 0x10000000) {
  std::vector<Vma> vmas;
  for (size_t i = 0; i < n; i++) vmas.push_back(mapping(base + 2 * i * kPage, kPage));
  return vmas;
}

Ranges ranges_of(const std::vector<Vma>& vmas, size_t from, size_t to) {
  Ranges r;
  for (size_t i = from; i < to; i++) r.emplace_back(vmas[i].start, vmas[i].end - vmas[i].start);
  return r;
}

class Compaction : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = compact_syscalls;
    compact_syscalls = {fake_pidfd_open, fake_process_madvise};
    g_kernel = &kernel_;
  }
  void TearDown() override {
    compact_syscalls = saved_;
    g_kernel = nullptr;
    // Every pidfd is closed by the time compaction returns, whatever the outcome.
    for (int fd : kernel_.fds) EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "descriptor " << fd;
  }

  // The ranges of every call, checking that each went to the opened pidfd with flags 0.
  std::vector<Ranges> sent(int advice) const {
    std::vector<Ranges> out;
    for (const Call& call : kernel_.calls) {
      EXPECT_EQ(call.advice, advice);
      EXPECT_EQ(call.flags, 0u);
      EXPECT_FALSE(kernel_.fds.empty());
      if (!kernel_.fds.empty()) {
        EXPECT_EQ(call.pidfd, kernel_.fds.back());
      }
      out.push_back(call.ranges);
    }
    return out;
  }

  FakeKernel kernel_;

 private:
  CompactSyscalls saved_{};
};

struct BatchCase {
  const char* name;
  std::vector<Vma> vmas;
  std::vector<Reply> replies;
  std::vector<Ranges> calls;  // the ranges of each call, in order
  int64_t result;
};

std::vector<BatchCase> batch_cases() {
  const uint64_t a = 0x100000000, b = 0x300000000;
  const std::vector<Vma> many = pages(2500);
  const std::vector<Vma> four_four = {mapping(a, 4 * kPage), mapping(b, 4 * kPage)};
  const std::vector<Vma> three = {mapping(a, kPage), mapping(b, 2 * kPage), mapping(b + 8 * kPage, kPage)};
  return {
      {"SmallMappingsShareOneCall", three, {}, {ranges_of(three, 0, 3)}, int64_t(4 * kPage)},
      {"RangesGoAtMost1024PerCall",
       many,
       {},
       {ranges_of(many, 0, 1024), ranges_of(many, 1024, 2048), ranges_of(many, 2048, 2500)},
       int64_t(2500 * kPage)},
      {"MappingLargerThanTheLimitSplitsExactlyAtIt",
       {mapping(a, kLimit + 3 * kPage), mapping(b, kPage)},
       {},
       {{{a, kLimit}}, {{a + kLimit, 3 * kPage}, {b, kPage}}},
       int64_t(kLimit + 4 * kPage)},
      {"MappingOfExactlyTheLimitFillsOneCall",
       {mapping(a, kLimit), mapping(b, kPage)},
       {},
       {{{a, kLimit}}, {{b, kPage}}},
       int64_t(kLimit + kPage)},
      {"RangeIsCutToFillTheLimit",
       {mapping(b, kPage), mapping(a, kLimit)},
       {},
       {{{b, kPage}, {a, kLimit - kPage}}, {{a + kLimit - kPage, kPage}}},
       int64_t(kLimit + kPage)},
      {"MappingOfTwiceTheLimitTakesThreeCalls",
       {mapping(a, 2 * kLimit + kPage)},
       {},
       {{{a, kLimit}}, {{a + kLimit, kLimit}}, {{a + 2 * kLimit, kPage}}},
       int64_t(2 * kLimit + kPage)},
      {"ZeroAnswerStepsOverTheFirstRange",
       three,
       {{0}},
       {ranges_of(three, 0, 3), ranges_of(three, 1, 3)},
       int64_t(4 * kPage)},
      {"EinvalStepsOverTheFirstRange",
       three,
       {{-1, EINVAL}, {-1, EINVAL}},
       {ranges_of(three, 0, 3), ranges_of(three, 1, 3), ranges_of(three, 2, 3)},
       int64_t(4 * kPage)},
      {"PartialAnswerSkipsThePageWhereTheKernelStopped",
       four_four,
       {{ssize_t(kPage)}},
       {{{a, 4 * kPage}, {b, 4 * kPage}}, {{a + 2 * kPage, 2 * kPage}, {b, 4 * kPage}}},
       int64_t(8 * kPage)},
      {"PartialAnswerAtARangeEndSkipsTheNextRangesFirstPage",
       four_four,
       {{ssize_t(4 * kPage)}},
       {{{a, 4 * kPage}, {b, 4 * kPage}}, {{b + kPage, 3 * kPage}}},
       int64_t(8 * kPage)},
      {"OtherErrorEndsCompaction", three, {{-1, ESRCH}}, {ranges_of(three, 0, 3)}, -ESRCH},
      {"ErrorInALaterBatchEndsCompaction",
       many,
       {{kWhole}, {-1, EPERM}},
       {ranges_of(many, 0, 1024), ranges_of(many, 1024, 2048)},
       -EPERM},
      {"ErrorAfterPartialProgressEndsCompaction",
       four_four,
       {{ssize_t(kPage)}, {-1, ENOMEM}},
       {{{a, 4 * kPage}, {b, 4 * kPage}}, {{a + 2 * kPage, 2 * kPage}, {b, 4 * kPage}}},
       -ENOMEM},
  };
}

TEST_F(Compaction, BatchesFollowTheKernelLimitsAndAnswers) {
  for (const BatchCase& c : batch_cases()) {
    SCOPED_TRACE(c.name);
    kernel_.calls.clear();
    kernel_.replies.assign(c.replies.begin(), c.replies.end());
    EXPECT_EQ(compactMemory(c.vmas, 4242, kAdvicePageout, static_cast<int>(c.vmas.size())),
              c.result);
    EXPECT_EQ(sent(kAdvicePageout), c.calls);
    if (c.result < 0) {
      EXPECT_EQ(errno, -c.result) << "errno lost on the way out";
    }
  }
  EXPECT_EQ(kernel_.opened, std::vector<pid_t>(batch_cases().size(), 4242));
}

TEST_F(Compaction, OnlyTheFirstCountMappingsAreSent) {
  const std::vector<Vma> vmas = pages(5);
  EXPECT_EQ(compactMemory(vmas, 1, kAdviceCold, 2), int64_t(2 * kPage));
  EXPECT_EQ(sent(kAdviceCold), std::vector<Ranges>{ranges_of(vmas, 0, 2)});
}

TEST_F(Compaction, NothingToSendOpensNoPidfd) {
  EXPECT_EQ(compactMemory(pages(3), 1, kAdvicePageout, 0), 0);
  EXPECT_TRUE(kernel_.opened.empty());
  EXPECT_TRUE(kernel_.calls.empty());
}

TEST_F(Compaction, PidfdFailureIsReportedAndReturnedAsNegatedErrno) {
  for (int err : {ESRCH, ENOSYS}) {
    kernel_.open_errno = err;
    testing::internal::CaptureStderr();
    const int64_t result = compactMemory(pages(3), 77, kAdvicePageout, 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error: open pid failed\n\n");
    EXPECT_EQ(result, -err);
  }
  EXPECT_TRUE(kernel_.calls.empty());
}

struct CollectCase {
  const char* name;
  int (*selector)(const Vma&);
  std::vector<size_t> lines;  // 1-based lines of maps_collect that are sent
};

TEST_F(Compaction, EachKindCollectsItsMappings) {
  const std::string maps = std::string(KESTREL_FIXTURES) + "/compact/maps_collect";
  std::vector<Vma> all;
  std::string buffer;
  ASSERT_TRUE(android::meminfo::ForEachVmaFromFile(
      maps, [&](const Vma& v) { return all.push_back(v), true; }, buffer));
  ASSERT_EQ(all.size(), 9u);

  // Anonymous means readable or writable and not executable: file-backed data counts too.
  const CollectCase cases[] = {
      {"all", getAnyPageAdvice, {1, 2, 3, 4, 5, 6, 7, 8, 9}},
      {"anon", getAnonPageAdvice, {1, 3, 4, 6, 8, 9}},
      {"file", getFilePageAdvice, {1, 2, 3, 9}},
  };
  for (const CollectCase& c : cases) {
    SCOPED_TRACE(c.name);
    kernel_.calls.clear();
    Ranges want;
    uint64_t bytes = 0;
    for (size_t line : c.lines) {
      want.emplace_back(all[line - 1].start, all[line - 1].end - all[line - 1].start);
      bytes += want.back().second;
    }
    EXPECT_EQ(compactProcess(31, c.selector, maps), int64_t(bytes));
    EXPECT_EQ(sent(kAdvicePageout), std::vector<Ranges>{want});
  }
}

// The lists keep their entries from one process to the next; a shorter process must not send
// the entries left over from a longer one.
TEST_F(Compaction, ListsReusedAcrossProcessesSendOnlyTheCurrentMappings) {
  const std::string dir = std::string(KESTREL_FIXTURES) + "/compact/";
  EXPECT_EQ(compactProcess(1, getAnyPageAdvice, dir + "maps_collect"), int64_t(0x60000));
  kernel_.calls.clear();
  EXPECT_EQ(compactProcess(2, getAnyPageAdvice, dir + "maps_collect_small"), int64_t(2 * 0x1000));
  EXPECT_EQ(sent(kAdvicePageout),
            (std::vector<Ranges>{{{0x70000000, 0x1000}, {0x70001000, 0x1000}}}));
}

// No kind asks for cold advice, but a selector that does gets a second list, sent after the
// page-out list and only when that one succeeded.
TEST_F(Compaction, ColdListFollowsAPageOutListThatSucceeded) {
  const std::string maps = std::string(KESTREL_FIXTURES) + "/compact/maps_collect_small";
  auto file_out_anon_cold = [](const Vma& v) { return v.inode != 0 ? kAdvicePageout : kAdviceCold; };

  EXPECT_EQ(compactProcess(5, file_out_anon_cold, maps), int64_t(2 * 0x1000));
  ASSERT_EQ(kernel_.calls.size(), 2u);
  EXPECT_EQ(kernel_.calls[0].advice, kAdvicePageout);
  EXPECT_EQ(kernel_.calls[0].ranges, (Ranges{{0x70000000, 0x1000}}));
  EXPECT_EQ(kernel_.calls[1].advice, kAdviceCold);
  EXPECT_EQ(kernel_.calls[1].ranges, (Ranges{{0x70001000, 0x1000}}));

  kernel_.calls.clear();
  kernel_.replies = {{-1, ENOSYS}};
  EXPECT_EQ(compactProcess(5, file_out_anon_cold, maps), -ENOSYS);
  EXPECT_EQ(kernel_.calls.size(), 1u);

  kernel_.calls.clear();
  kernel_.replies = {{kWhole}, {-1, EPERM}};
  EXPECT_EQ(compactProcess(5, file_out_anon_cold, maps), -EPERM);
  EXPECT_EQ(kernel_.calls.size(), 2u);
}

TEST_F(Compaction, ProcessWithNothingSelectedOpensNoPidfd) {
  const std::string maps = std::string(KESTREL_FIXTURES) + "/compact/maps_collect_small";
  EXPECT_EQ(compactProcess(9, getFilePageAdvice, maps + "_none"), 0);  // unreadable maps
  EXPECT_EQ(compactProcess(9, [](const Vma&) { return kAdviceNone; }, maps), 0);
  EXPECT_TRUE(kernel_.opened.empty());
}

}  // namespace
