// SPDX-License-Identifier: Apache-2.0
// `kestrel compact` on real processes: --pid pages a child's memory out, the mappings reach the
// kernel 1024 ranges per process_madvise call, and without process_madvise (a seccomp filter
// here) the kind's label goes to the reclaim file of every process from the first ENOSYS on.
#include <signal.h>
#include <stdio.h>
#include <sys/mman.h>
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

// A compact_child holding `pages` one-page file mappings until this object goes.
struct Child {
  explicit Child(int pages)
      : args(std::to_string(pages) + " " + kHelperDir),
        out(popen(("exec " + kHelperDir + "/compact_child " + args).c_str(), "re")) {
    if (out == nullptr || fscanf(out, "ready %d", &pid) != 1) pid = -1;
  }
  ~Child() {
    if (pid > 0) kill(pid, SIGKILL);
    if (out != nullptr) pclose(out);
  }
  long status_kb(const std::string& field) const {
    const std::string status = read_text("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find("\n" + field + ":");
    return at == std::string::npos ? -1 : atol(status.c_str() + at + field.size() + 2);
  }

  const std::string args;
  FILE* const out;
  pid_t pid = -1;
};

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

// 16 MiB in 4096 one-page file mappings: the clean pages leave, 1024 ranges per call.
TEST(CompactPageOut, PidPagesOutTheChildsFilePagesIn1024RangeCalls) {
  if (geteuid() != 0) GTEST_SKIP() << "process_madvise on another process needs CAP_SYS_NICE";
  // Past its checks on the call itself, process_madvise refuses the descriptor.
  if (syscall(SYS_process_madvise, -1, nullptr, 0, MADV_PAGEOUT, 0) == 0 || errno != EBADF) {
    GTEST_SKIP() << "no process_madvise here: " << strerror(errno);
  }
  Child child(4096);
  ASSERT_GT(child.pid, 0);
  // The file kind takes every mapping with an inode.
  static const std::regex kFileMapping(R"((^|\n)\S+ \S+ \S+ \S+ [1-9])");
  const std::string maps = read_text("/proc/" + std::to_string(child.pid) + "/maps");
  const size_t ranges = static_cast<size_t>(std::distance(
      std::sregex_iterator(maps.begin(), maps.end(), kFileMapping), std::sregex_iterator()));
  const long before = child.status_kb("RssFile");
  ASSERT_GE(before, 16 * 1024);

  TempDir tmp;
  const bool traced = access("/usr/bin/strace", X_OK) == 0;
  std::vector<std::string> argv = {kestrel_binary(), "compact", "--pid", std::to_string(child.pid),
                                   "--file"};
  if (traced) {
    argv.insert(argv.begin(), {"/usr/bin/strace", "-f", "-qq", "-o", tmp.file("trace"), "-e",
                               "trace=process_madvise"});
  }
  RunOptions opts = kNoSim;  // LeakSanitizer cannot stop the world under a tracer
  opts.env = {"ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"};
  Result r = run_program(argv, opts);
  if (traced && r.status != 0 && r.out.empty()) GTEST_SKIP() << "strace cannot trace: " << r.err;
  expect_run(r, "compact pid:" + std::to_string(child.pid) + " compact_child " + child.args +
                    "\ndone: total <t> ms\n", "", 0);
  EXPECT_LE(child.status_kb("RssFile"), before - 12 * 1024) << "before " << before << " kB";
  if (!traced) GTEST_SKIP() << "strace is not installed: the calls go uncounted";

  // "process_madvise(3, [...], 1024, MADV_PAGEOUT, 0) = 4194304": range count and answer.
  static const std::regex kCall(
      R"(process_madvise\(\d+, \[.*\], (\d+), MADV_PAGEOUT, 0\) = (-?\d+))");
  std::vector<size_t> counts;
  const std::string trace = tmp.read("trace");
  for (std::sregex_iterator call(trace.begin(), trace.end(), kCall), end; call != end; ++call) {
    counts.push_back(std::stoul((*call)[1]));
    EXPECT_GT(std::stol((*call)[2]), 0) << call->str();
  }
  std::vector<size_t> want(ranges / 1024, 1024);
  if (ranges % 1024 != 0) want.push_back(ranges % 1024);
  EXPECT_EQ(counts, want);
}

// A walk over a sandbox's /proc of plain files, reclaim files included. The first eligible
// process (a real one) meets ENOSYS; it and every later one get the label, only it is announced.
// Owners from uid 10000 on, and the tool itself (its entry made by the launcher), are left alone.
TEST(CompactFallback, KindLabelGoesToTheReclaimFileFromTheFirstEnosysOn) {
  KESTREL_REQUIRE_SANDBOX();
  const pid_t a = getpid(), b = getppid();
  const std::string kestrel = kestrel_binary();
  const struct {
    const char* label;
    std::vector<std::string> launcher_argv;
    const char* err;
  } cases[] = {
      {"all", {"--pidfd-open", "--", kestrel, "compact"}, "error: open pid failed\n\n"},
      {"file", {"--", kestrel, "compact", "--file"}, ""},
      {"anon", {"--", kestrel, "compact", "--anon"}, ""},
      {"all", {"--", kestrel, "compact", "--file", "--anon"}, ""},
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
    EXPECT_EQ(sandbox.read_file("/proc/" + std::to_string(b) + "/reclaim"), c.label);
    EXPECT_EQ(sandbox.read_file("/proc/300/reclaim"), "");
    EXPECT_EQ(sandbox.read_file("/proc/own/reclaim"), "untouched") << "the tool compacted itself";
  }
}

}  // namespace
}  // namespace kestrel_e2e
