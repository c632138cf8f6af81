// SPDX-License-Identifier: Apache-2.0
// `kestrel compact` on real processes: --pid pages this process's memory out, and without
// process_madvise (a seccomp filter here) the kind's label goes to the reclaim file of every
// process from the first ENOSYS on. How the ranges are batched is the unit tests' business.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"

namespace kestrel_e2e {
namespace {

const std::string kHelperDir = std::string(KESTREL_BUILD_DIR) + "/tests/compact";
const RunOptions kNoSim{.simulator = false};

// The whole outcome of a run; the elapsed time is the one part that changes from run to run.
void expect_run(const Result& r, const std::string& out, const std::string& err, int status) {
  static const std::regex kDone("done: total [0-9]+\\.[0-9]{3} ms\n");
  EXPECT_EQ(std::tuple(std::regex_replace(r.out, kDone, "done: total <t> ms\n"), r.err, r.status),
            std::tie(out, err, status));
}

// A field of this process's status in kB, or -1.
long status_kb(const std::string& field) {
  const std::string status = read_text("/proc/self/status");
  const size_t at = status.find("\n" + field + ":");
  return at == std::string::npos ? -1 : atol(status.c_str() + at + field.size() + 2);
}

// Help, and every leftover argument (a pid typed without --pid must not widen the command to
// every system process), end with the usage; a process that is gone is reported and skipped.
TEST(CompactCommand, UsageStrayArgumentsAndVanishedProcess) {
  const std::string usage =
      "usage: kestrel proc_madvise [options]\n"
      "    -p,--pid              pid of process. compact all processes (uid > 10000) if not given\n"
      "    --file                compact file\n"
      "    --anon                compact anon\n"
      "\n";
  const std::vector<std::string> refused[] = {
      {"-h"}, {"1234"}, {"--anon", "1234"}, {"--pid", "99999999", "extra"}, {"--all"}};
  for (const auto& args : refused) {
    SCOPED_TRACE(args.back());
    std::vector<std::string> argv = {"compact"};
    argv.insert(argv.end(), args.begin(), args.end());
    expect_run(run_kestrel(argv, kNoSim), "", usage, 129);
  }
  expect_run(run_kestrel({"compact", "--pid", "99999999"}, kNoSim),
             "read pid:99999999 failed\ndone: total <t> ms\n", "", 0);
}

// 16 MiB of clean file pages that this process alone maps leave its memory: the real pidfd_open
// and process_madvise at work. The walk below shows what a compacted process prints.
TEST(CompactPageOut, PidPagesOutTheFilePagesOfAProcess) {
  if (geteuid() != 0) GTEST_SKIP() << "process_madvise on another process needs CAP_SYS_NICE";
  // Past its checks on the call itself, process_madvise refuses the descriptor.
  if (syscall(SYS_process_madvise, -1, nullptr, 0, MADV_PAGEOUT, 0) == 0 || errno != EBADF) {
    GTEST_SKIP() << "no process_madvise here: " << strerror(errno);
  }
  // In the build tree rather than /tmp: the pages of a tmpfs file could only go to swap.
  const std::string path = kHelperDir + "/pageout." + std::to_string(getpid());
  const std::string data(16 << 20, 'k');  // no zero page
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  unlink(path.c_str());
  ASSERT_GE(fd, 0) << path << ": " << strerror(errno);
  const bool written =
      write(fd, data.data(), data.size()) == ssize_t(data.size()) && fsync(fd) == 0;
  // Out of the page cache, the pages come back clean and mapped by this process only.
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  void* const mapped =
      written ? mmap(nullptr, data.size(), PROT_READ, MAP_PRIVATE, fd, 0) : MAP_FAILED;
  close(fd);
  ASSERT_NE(mapped, MAP_FAILED) << path << ": " << strerror(errno);
  const char* const area = static_cast<const char*>(mapped);
  for (size_t at = 0; at < data.size(); at += 4096) EXPECT_EQ(area[at], 'k');
  const long before = status_kb("RssFile");
  EXPECT_GE(before, 16 * 1024);

  const std::string self = std::to_string(getpid());
  const Result r = run_kestrel({"compact", "--pid", self, "--file"}, kNoSim);
  EXPECT_EQ(std::tuple(r.err, r.status), std::tuple("", 0));
  EXPECT_EQ(r.out.rfind("compact pid:" + self + " ", 0), 0u) << r.out;
  EXPECT_LE(status_kb("RssFile"), before - 12 * 1024) << "before " << before << " kB";
  munmap(mapped, data.size());
}

// A walk over a sandbox's /proc of plain files, reclaim files included. The first eligible
// process (a real one) meets ENOSYS; it and every later one get the label, only it is announced.
// Owners from uid 10000 on, and the tool itself (its entry made by the launcher), are left alone;
// so is a FIFO in place of a reclaim file (an open for writing would wait for a reader for ever).
TEST(CompactFallback, KindLabelGoesToTheReclaimFileFromTheFirstEnosysOn) {
  KESTREL_REQUIRE_SANDBOX();
  const pid_t a = getpid(), b = getppid();
  const std::string kestrel = kestrel_binary();
  const struct {
    const char* label;
    std::vector<std::string> launcher_argv;
    const char* err;
    bool fifo = false;  // at b's reclaim file
  } cases[] = {
      {"all", {"--pidfd-open", "--", kestrel, "compact"}, "error: open pid failed\n\n"},
      {"file", {"--", kestrel, "compact", "--file"}, ""},
      {"anon", {"--", kestrel, "compact", "--anon"}, ""},
      {"all", {"--", kestrel, "compact", "--file", "--anon"}, "", true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Sandbox sandbox;
    auto add = [&](pid_t pid, uid_t uid, const std::string& cmdline) {
      const std::string dir = "/proc/" + std::to_string(pid);
      sandbox.write_file(dir + "/status", "Name:\tfixture\n");
      ASSERT_EQ(chown(sandbox.host_path(dir + "/status").c_str(), uid, 0), 0);
      sandbox.write_file(dir + "/cmdline", cmdline);
      sandbox.write_file(dir + "/maps", "10000000-10001000 rw-p 00000000 fe:00 7 /lib/libc.so\n");
      sandbox.write_file(dir + "/reclaim", "");
    };
    add(a, 0, std::string("/system/bin/init\0second_stage\0", 30));
    add(b, 9999, std::string("surfaceflinger\0", 15));
    add(300, 10000, std::string("com.example.app\0", 16));
    const std::string b_reclaim = "/proc/" + std::to_string(b) + "/reclaim";
    if (c.fifo) {
      ASSERT_EQ(unlink(sandbox.host_path(b_reclaim).c_str()), 0);
      ASSERT_EQ(mkfifo(sandbox.host_path(b_reclaim).c_str(), 0666), 0);
    }

    std::vector<std::string> argv = {kHelperDir + "/compact_nosys", "--own-entry"};
    argv.insert(argv.end(), c.launcher_argv.begin(), c.launcher_argv.end());
    Result r = sandbox.run_program(argv, kNoSim);
    ASSERT_NE(r.status, 77) << "the launcher could not set up: " << r.err;

    std::string first;  // in directory order
    for (const auto& e : std::filesystem::directory_iterator(sandbox.host_path("/proc"))) {
      const pid_t pid = atoi(e.path().filename().c_str());
      if (first.empty() && (pid == a || pid == b)) first = std::to_string(pid);
    }
    const char* cmdline = first == std::to_string(a) ? "init second_stage" : "surfaceflinger";
    expect_run(r, "compact pid:" + first + " " + cmdline + "\ndone: total <t> ms\n", c.err, 0);
    EXPECT_EQ(sandbox.read_file("/proc/" + std::to_string(a) + "/reclaim"), c.label);
    if (c.fifo) {
      EXPECT_TRUE(std::filesystem::is_fifo(sandbox.host_path(b_reclaim)));
    } else {
      EXPECT_EQ(sandbox.read_file(b_reclaim), c.label);
    }
    EXPECT_EQ(sandbox.read_file("/proc/300/reclaim"), "");
    EXPECT_EQ(sandbox.read_file("/proc/own/reclaim"), "untouched") << "the tool compacted itself";
  }
}

}  // namespace
}  // namespace kestrel_e2e
