// SPDX-License-Identifier: Apache-2.0
// `kestrel compact`: its usage, and without process_madvise (a seccomp filter here) the kind's
// label in the reclaim file of every process from the first ENOSYS on. How the ranges are
// batched is the unit tests' business; the guest checks page real processes out.
#include <sys/stat.h>
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

const RunOptions kNoSim{.simulator = false};

// The whole outcome of a run; the elapsed time is the one part that changes from run to run.
void expect_run(const Result& r, const std::string& out, const std::string& err, int status) {
  static const std::regex kDone("done: total [0-9]+\\.[0-9]{3} ms\n");
  EXPECT_EQ(std::tuple(std::regex_replace(r.out, kDone, "done: total <t> ms\n"), r.err, r.status),
            std::tie(out, err, status));
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
  for (const char* arg : {"-h", "1234", "--all"}) {
    SCOPED_TRACE(arg);
    expect_run(run_kestrel({"compact", arg}, kNoSim), "", usage, 129);
  }
  expect_run(run_kestrel({"compact", "--pid", "99999999"}, kNoSim),
             "read pid:99999999 failed\ndone: total <t> ms\n", "", 0);
}

// A walk over a sandbox's /proc of plain files, reclaim files included. The first eligible
// process (a real one) meets ENOSYS; it and every later one get the label, only it is announced.
// Owners from uid 10000 on are left alone; so is a FIFO in place of a reclaim file (an open for
// writing would wait for a reader for ever).
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
      {"all", {"--pidfd-open", "--", kestrel, "compact"}, "error: open pid failed\n\n", true},
      {"file", {"--", kestrel, "compact", "--file"}, ""},
      {"anon", {"--", kestrel, "compact", "--anon"}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    Sandbox sandbox;
    auto add = [&](pid_t pid, uid_t uid) {
      const std::string dir = "/proc/" + std::to_string(pid);
      sandbox.write_file(dir + "/status", "Name:\tfixture\n");
      ASSERT_EQ(chown(sandbox.host_path(dir + "/status").c_str(), uid, 0), 0);
      sandbox.write_file(dir + "/cmdline", std::string("/system/bin/init\0second_stage\0", 30));
      sandbox.write_file(dir + "/maps", "10000000-10001000 rw-p 00000000 fe:00 7 /lib/libc.so\n");
      sandbox.write_file(dir + "/reclaim", "");
    };
    add(a, 0);
    add(b, 9999);
    add(300, 10000);
    const std::string b_reclaim = "/proc/" + std::to_string(b) + "/reclaim";
    if (c.fifo) {
      ASSERT_EQ(unlink(sandbox.host_path(b_reclaim).c_str()), 0);
      ASSERT_EQ(mkfifo(sandbox.host_path(b_reclaim).c_str(), 0666), 0);
    }

    std::vector<std::string> argv = {KESTREL_BUILD_DIR "/tests/compact/compact_nosys"};
    argv.insert(argv.end(), c.launcher_argv.begin(), c.launcher_argv.end());
    const Result r = sandbox.run_program(argv, kNoSim);

    std::string first;  // in directory order
    for (const auto& e : std::filesystem::directory_iterator(sandbox.host_path("/proc"))) {
      const pid_t pid = atoi(e.path().filename().c_str());
      if (first.empty() && (pid == a || pid == b)) first = std::to_string(pid);
    }
    expect_run(r, "compact pid:" + first + " init second_stage\ndone: total <t> ms\n", c.err, 0);
    EXPECT_EQ(sandbox.read_file("/proc/" + std::to_string(a) + "/reclaim"), c.label);
    if (c.fifo) {
      EXPECT_TRUE(std::filesystem::is_fifo(sandbox.host_path(b_reclaim)));
    } else {
      EXPECT_EQ(sandbox.read_file(b_reclaim), c.label);
    }
    EXPECT_EQ(sandbox.read_file("/proc/300/reclaim"), "");
  }
}

}  // namespace
}  // namespace kestrel_e2e
