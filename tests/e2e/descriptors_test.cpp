// SPDX-License-Identifier: Apache-2.0
// Descriptors end to end: every command, on its normal and on its failure endings, must end
// holding no descriptor it opened beyond those it keeps on purpose (the driver's, the daemon's
// logs and meminfo reader), as the report preloaded beside the simulator lists them at exit().
// One ending stands for those that open nothing and one for those that hold what it holds on the
// way to the same exit.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"
#include "tests/support/elf_image.h"

namespace kestrel_e2e {
namespace {

// The read-only device as the simulator makes it: one end of a socket pair. While the record
// stream stays open (host mode, "at-end hold", or records still being fed) the simulator's own
// end is there too and shows the same way.
constexpr char kStream[] = "socket cloexec";
// The write-only device, which takes the scene requests.
constexpr char kSceneDevice[] = "anon_inode:[eventfd] cloexec";
constexpr char kHeld[] = "at-end hold\n";
constexpr int kAnyStatus = -1;

// One ending of a command. Its standard error is compared only where no test of the command
// proves it (unset: not compared).
struct Ending {
  std::vector<std::string> args;
  std::string scenario;  // driver simulator scenario; empty: host mode
  int status;            // kAnyStatus: not compared
  std::vector<std::string> kept;  // the report without descriptor numbers, in any order
  std::optional<std::string> err = {};
};

// Runs each ending, in `box` when given, and compares the report's descriptions ("5
// /proc/meminfo cloexec" gives "/proc/meminfo cloexec") in any order. Numbers and order are left
// out: the simulator closes its end of a finished stream at a moment of its own, so later
// descriptors may or may not take its number.
void run_endings(const std::vector<Ending>& endings, Sandbox* box = nullptr) {
  for (const Ending& e : endings) {
    SCOPED_TRACE(testing::PrintToString(e.args) + " / " + e.scenario.substr(0, 40));
    TempDir dir;
    const std::string report = box ? box->host_path("/tmp/fds") : dir.file("fds");
    unlink(report.c_str());  // a box runs several endings: no report may stand in for a missing one
    RunOptions opts{.scenario = e.scenario,
                    .env = {"LD_PRELOAD=" + simulator_library() + ":" + fd_report_library(),
                            "KESTREL_FD_REPORT=" + (box ? "/tmp/fds" : report)}};
    Result r = box ? box->run(e.args, opts) : run_kestrel(e.args, opts);
    EXPECT_FALSE(r.timed_out);
    if (e.status != kAnyStatus) { EXPECT_EQ(r.status, e.status); }
    if (e.err) { EXPECT_EQ(r.err, *e.err); }
    std::ifstream in(report);
    std::multiset<std::string> kept, want(e.kept.begin(), e.kept.end());
    if (!in) kept.insert("<no report at " + report + ">");
    for (std::string line; std::getline(in, line);) kept.insert(line.substr(line.find(' ') + 1));
    EXPECT_EQ(kept, want);
  }
}

// malloc-debug's requests go to this test process, which ignores the signal meanwhile; a FIFO
// nobody writes to stands in for an ELF file and a configuration, and opening it must not wait.
TEST(Descriptors, EveryCommandKeepsOnlyTheDriver) {
  const std::string self = std::to_string(getpid());
  const std::string sample = std::string(KESTREL_SOURCE_DIR) + "/examples/tarvo_mm_config.xml";
  const std::string procs = "proc pid=" + self + " uid=0 comm=self\nproc pid=4200001 comm=gone\n";
  TempDir dir;
  const std::string elf = dir.write("lib.so", kestrel_fixtures::elf_image({kestrel_fixtures::elf_load(16384)}));
  const std::string fifo = dir.file("pipe");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  struct sigaction ignore = {}, before = {};
  ignore.sa_handler = SIG_IGN;
  sigaction(SIGRTMAX - 19, &ignore, &before);
  run_endings({
      {{"bogus"}, "", 1, {}},
      {{"version"}, "version 131077\n", 0, {kStream}},
      // One read takes at most 4076 bytes, so a longer record arrives cut and fails the check.
      {{"logger"}, "log msg=" + std::string(5000, 'x') + "\n" + kHeld, 129, {kStream, kStream},
       "fatal: read: unexpected length. Expected 5010, got 4044\n\n"},
      {{"config", "--load", "all", "--file", sample}, "", 0, {}},
      {{"config", "--load", "all", "--file", fifo}, "", 255, {},
       "error: failed to open/parse XML file " + fifo + " not a regular file\n\n"},
      // Runs readelf through a pipe, which must be closed again; the report's status, which
      // depends on this machine's RAM, is the config tests' business.
      {{"config", "--list"}, "", kAnyStatus, {}},
      {{"malloc-debug", "-d", self}, "log pid=" + self + " sec=now tag=malloc_debug msg=END\n" + kHeld,
       0, {kStream, kStream}},
      {{"mem-stress", "1"}, "", 0, {}},
      // Each row's smaps is opened and closed; the command line reader is the compact ending's.
      {{"meminfo", "-v"}, procs, 0, {kStream}},
      {{"utils", "--elf-align", elf}, "", 0, {}},
      {{"utils", "--elf-align", fifo}, "", 129, {},
       "fatal: " + fifo + " is not a valid elf file or file does not exit.\n"},
      {{"utils", "--set-scene", "1"}, "", 0, {kSceneDevice}},
  });
  sigaction(SIGRTMAX - 19, &before, nullptr);
}

// The daemon keeps the driver, /proc/meminfo (its reader is written to be called again) and its
// two logs; report files and kernel files are closed after use, whatever they held. The walks
// of compact and utils meet a process that is gone by the time its pidfd is asked for, and a
// partition that is not there.
TEST(Descriptors, SandboxedEndingsKeepOnlyTheDriverAndTheDaemonsFiles) {
  KESTREL_REQUIRE_SANDBOX();
  const std::string folder = "/data/tarvo/heapdump/kestrel/";
  Sandbox box;
  box.write_file("/proc/meminfo", "MemTotal: 1024 kB\nIonTotalUsed: 2 kB\n");
  box.make_dir("/data/tarvo/heapdump");
  box.write_file("/proc/4200001/status", "Name:\tgone\n");
  box.write_file("/proc/4200001/cmdline", std::string("gone\0", 5));
  box.write_file("/proc/4200001/maps", "10000000-10001000 r--p 00000000 fe:00 7 /system/lib64/libc.so\n");
  box.write_file("/proc/mounts", "/dev/block/dm-1 /vendor erofs ro 0 0\n/dev/block/dm-2 /odm erofs ro 0 0\n");
  box.write_file("/vendor/lib64/libsmall.so", kestrel_fixtures::elf_image({kestrel_fixtures::elf_load(4096)}));
  box.write_file("/vendor/lib64/README", "not an ELF file\n");
  run_endings({
      {{"aging"}, "log msg=x\n", 129,
       {kStream, "/proc/meminfo cloexec", folder + "log.txt cloexec", folder + "device.txt cloexec"}},
      {{"compact"}, "", 0, {}, "error: open pid failed\n\n"},
      {{"utils", "--elf-align"}, "", 0, {}},
  }, &box);
}

}  // namespace
}  // namespace kestrel_e2e
