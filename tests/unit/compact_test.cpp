// SPDX-License-Identifier: Apache-2.0
// Compaction below the command line: process_madvise batches, how the kernel's answers move them
// on, and the mappings of each kind, with a fake kernel that records calls and answers a script.
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "libs/kestrel/compact.h"

namespace {

using tarvo::kestrel::maps::Vma;
using Ranges = std::vector<std::pair<uint64_t, uint64_t>>;  // base, length

const uint64_t kPage = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
const uint64_t kLimit = compact_byte_limit();

using Reply = std::pair<ssize_t, int>;  // a byte count, or -1 and an errno

struct FakeKernel {
  std::vector<Reply> replies;  // once they run out, every byte asked is done
  std::vector<Ranges> calls;
  std::vector<int> advice, fds;  // of each call; descriptors handed out
  std::vector<pid_t> opened;     // pids given to pidfd_open
} * g_kernel;

int fake_pidfd_open(pid_t pid, unsigned int) {
  g_kernel->opened.push_back(pid);
  g_kernel->fds.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  return g_kernel->fds.back();
}

ssize_t fake_process_madvise(int pidfd, const iovec* iov, size_t count, int advice,
                             unsigned) {
  EXPECT_TRUE(!g_kernel->fds.empty() && pidfd == g_kernel->fds.back()) << "not the open pidfd";
  Reply reply{0, 0};
  g_kernel->calls.emplace_back();
  for (size_t i = 0; i < count; i++) {
    g_kernel->calls.back().emplace_back(reinterpret_cast<uintptr_t>(iov[i].iov_base),
                                        iov[i].iov_len);
    reply.first += static_cast<ssize_t>(iov[i].iov_len);
  }
  g_kernel->advice.push_back(advice);
  if (!g_kernel->replies.empty()) {
    reply = g_kernel->replies.front();
    g_kernel->replies.erase(g_kernel->replies.begin());
  }
  // A batch that never empties would loop for ever; end it with an error no case expects.
  if (g_kernel->calls.size() > 100) reply = {-1, E2BIG};
  errno = reply.second;
  return reply.first;
}

Vma mapping(uint64_t start, uint64_t length) { return Vma{start, start + length}; }

Ranges ranges_of(const std::vector<Vma>& vmas, size_t from, size_t to) {
  Ranges r;
  for (size_t i = from; i < to; i++) r.emplace_back(vmas[i].start, vmas[i].end - vmas[i].start);
  return r;
}

const CompactSyscalls kFakes = {fake_pidfd_open, fake_process_madvise};

class Compaction : public ::testing::Test {
 protected:
  Compaction() { g_kernel = &kernel_; }
  ~Compaction() override { reset(); }
  // Checks that every pidfd is closed, whatever the outcome, then scripts the next answers.
  void reset(const std::vector<Reply>& replies = {}) {
    for (int fd : kernel_.fds) EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "descriptor " << fd;
    kernel_ = FakeKernel{.replies = replies};
  }

  FakeKernel kernel_;
};

TEST_F(Compaction, BatchesFollowTheKernelLimitsAndAnswers) {
  const uint64_t a = 0x100000000, b = 0x300000000, c = 0x500000000;
  std::vector<Vma> many;  // 2500 one-page mappings, two pages apart
  for (uint64_t i = 0; i < 2500; i++) many.push_back(mapping(0x10000000 + 2 * i * kPage, kPage));
  const std::vector<Vma> three = {mapping(a, kPage), mapping(b, 2 * kPage), mapping(c, kPage)};
  const struct {
    const char* name;
    std::vector<Vma> vmas;
    std::vector<Reply> replies;
    std::vector<Ranges> calls;
    int64_t result;
  } cases[] = {
      {"RangesGoAtMost1024PerCall", many, {},
       {ranges_of(many, 0, 1024), ranges_of(many, 1024, 2048), ranges_of(many, 2048, 2500)},
       int64_t(2500 * kPage)},
      // Cut to fill the limit, the rest carried over two more calls and shared with the next; a
      // call of exactly the limit is full.
      {"LargerThanTheLimitSplitsExactlyAtIt",
       {mapping(b, kPage), mapping(a, 2 * kLimit + 2 * kPage), mapping(c, kPage)}, {},
       {{{b, kPage}, {a, kLimit - kPage}}, {{a + kLimit - kPage, kLimit}},
        {{a + 2 * kLimit - kPage, 3 * kPage}, {c, kPage}}},
       int64_t(2 * kLimit + 4 * kPage)},
      {"ZeroAndEinvalStepOverTheFirstRange", three, {{0, 0}, {-1, EINVAL}},
       {ranges_of(three, 0, 3), ranges_of(three, 1, 3), ranges_of(three, 2, 3)},
       int64_t(4 * kPage)},
      // The kernel stopped at a page it could not advise: go on after it, into the next range too.
      {"PartialAnswerSkipsOnePage", {mapping(a, 4 * kPage), mapping(b, 4 * kPage)},
       {{ssize_t(kPage), 0}, {ssize_t(2 * kPage), 0}},
       {{{a, 4 * kPage}, {b, 4 * kPage}}, {{a + 2 * kPage, 2 * kPage}, {b, 4 * kPage}},
        {{b + kPage, 3 * kPage}}},
       int64_t(8 * kPage)},
      {"ErrorInALaterBatchEndsCompaction", many, {{ssize_t(1024 * kPage), 0}, {-1, EPERM}},
       {ranges_of(many, 0, 1024), ranges_of(many, 1024, 2048)}, -EPERM},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    reset(t.replies);
    EXPECT_EQ(compactMemory(t.vmas, 4242, kAdviceCold, int(t.vmas.size()), kFakes), t.result);
    EXPECT_EQ(kernel_.calls, t.calls);
    EXPECT_EQ(kernel_.advice, std::vector<int>(t.calls.size(), kAdviceCold));
    EXPECT_EQ(kernel_.opened, std::vector<pid_t>{4242});
  }
}

// The kinds go from the longest list to the shortest: the lists keep their entries from one
// process to the next, and a shorter one must not send the leftovers of a longer one.
TEST_F(Compaction, EachKindCollectsItsMappings) {
  const std::string maps = std::string(KESTREL_FIXTURES) + "/compact/maps_collect";
  const Ranges l = {{0, 0}, {0x10000000, 0x2000}, {0x10002000, 0x3000}, {0x10005000, 0x1000},
                    {0x20000000, 0x40000}, {0x30000000, 0x1000}, {0x30001000, 0x10000},
                    {0x40000000, 0x3000}, {0x50000000, 0x2000}, {0x60000000, 0x4000}};  // by line
  // Anonymous means readable or writable and not executable: file-backed data counts too.
  const struct {
    const char* name;
    int (*selector)(const Vma&);
    Ranges sent;
    int64_t bytes;
  } cases[] = {
      {"all", getAnyPageAdvice, {l[1], l[2], l[3], l[4], l[5], l[6], l[7], l[8], l[9]}, 0x60000},
      {"anon", getAnonPageAdvice, {l[1], l[3], l[4], l[6], l[8], l[9]}, 0x59000},
      {"file", getFilePageAdvice, {l[1], l[2], l[3], l[9]}, 0xa000},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    reset();
    EXPECT_EQ(compactProcess(31, t.selector, maps, kFakes), t.bytes);
    EXPECT_EQ(kernel_.calls, std::vector<Ranges>{t.sent});
    EXPECT_EQ(kernel_.advice, std::vector<int>{kAdvicePageout});
  }
}

}  // namespace
