// SPDX-License-Identifier: Apache-2.0
// Descriptors end to end: every command, on its normal and on its failure endings, must end
// holding no descriptor it opened beyond those it keeps on purpose: the cached descriptors of
// /dev/kestrel, and the aging daemon's two logs and its /proc/meminfo reader. The simulator's
// descriptor report lists what the program opened and still holds as it calls exit().
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
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
constexpr char kStream[] = "socket:unix/seqpacket cloexec";
// The write-only device, which takes the scene requests.
constexpr char kSceneDevice[] = "anon_inode:[eventfd] cloexec";
constexpr char kEndOfStream[] = "fatal: read: Unexpected EOF!\n\n";
constexpr char kHeld[] = "at-end hold\n";

// One ending of a command. A null `err` is not compared: usage texts (the commands' own tests
// prove them) and complaints of host programs.
struct Ending {
  std::string name;
  std::vector<std::string> args;
  std::string scenario;  // driver simulator scenario; empty: host mode
  int status;            // kAnyStatus: not compared
  const char* err;
  std::vector<std::string> kept;  // the report without descriptor numbers, in any order
};
constexpr int kAnyStatus = -1;

// Runs each ending, in `box` when given (its files laid out by the caller), and compares the
// report's descriptions ("5 /proc/meminfo cloexec" gives "/proc/meminfo cloexec"), sorted.
// Numbers and order are left out: the simulator closes its end of a finished stream at a moment
// of its own, so later descriptors may or may not take its number.
void run_endings(const std::vector<Ending>& endings, Sandbox* box = nullptr) {
  for (const Ending& e : endings) {
    SCOPED_TRACE(e.name);
    TempDir dir;
    const std::string report = box ? box->host_path("/tmp/fds") : dir.file("fds");
    RunOptions opts{.scenario = e.scenario, .preload = {fd_report_library()},
                    .env = {"KESTREL_FD_REPORT=" + (box ? "/tmp/fds" : report)}};
    Result r = box ? box->run(e.args, opts) : run_kestrel(e.args, opts);
    EXPECT_FALSE(r.timed_out);
    if (e.status != kAnyStatus) { EXPECT_EQ(r.status, e.status); }
    if (e.err != nullptr) { EXPECT_EQ(r.err, e.err); }
    std::ifstream in(report);
    std::vector<std::string> kept, want = e.kept;
    if (!in) kept.push_back("<no report at " + report + ">");
    for (std::string line; std::getline(in, line);) kept.push_back(line.substr(line.find(' ') + 1));
    std::sort(kept.begin(), kept.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(kept, want);
  }
}

// malloc-debug's request goes to the test process itself, which ignores the signal meanwhile.
struct SelfAsTarget {
  SelfAsTarget() {
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGRTMAX - 19, &ignore, &before);
  }
  ~SelfAsTarget() { sigaction(SIGRTMAX - 19, &before, nullptr); }
  std::string pid() const { return std::to_string(getpid()); }
  struct sigaction before = {};
};

TEST(Descriptors, DispatcherAndVersionKeepOnlyTheDriver) {
  const std::string unknown = kestrel_binary() + ": 'bogus' is not a kestrel command.\n";
  run_endings({
      {"no command", {}, "", 1, "", {}},
      {"unknown command", {"bogus"}, "", 1, unknown.c_str(), {}},
      {"version", {"version"}, "version 131077\n", 0, "", {kStream}},
      {"version without device", {"version"}, "device absent\n", 129,
       "fatal: cannot get kestrel version.\n", {}},
      {"version refused", {"version"}, "fail 0xFA01 EIO\n", 129,
       "fatal: cannot get kestrel version.\n", {kStream}},
  });
}

TEST(Descriptors, LoggerKeepsOnlyTheDriver) {
  run_endings({
      {"end of stream", {"logger"}, "log msg=x\n", 129, kEndOfStream, {kStream}},
      {"length mismatch", {"logger"}, std::string("log len=+3 msg=x\n") + kHeld, 129,
       "fatal: read: unexpected length. Expected 14, got 11\n\n", {kStream, kStream}},
      // One read takes at most 4076 bytes, so a longer record arrives cut and fails the check.
      {"record longer than a read", {"logger"},
       "log msg=" + std::string(5000, 'x') + "\n" + kHeld, 129,
       "fatal: read: unexpected length. Expected 5010, got 4044\n\n", {kStream, kStream}},
      {"no device", {"logger"}, "device absent\n", 129, "fatal: open kestrel failed\n", {}},
  });
}

TEST(Descriptors, ConfigKeepsNothing) {
  const std::string fixtures = fixtures_dir() + "/config/";
  const std::string sample = fixtures + "../../../examples/tarvo_mm_config.xml";
  run_endings({
      {"load", {"config", "--load", "all", "--file", sample}, "", 0, "", {}},
      {"invalid group", {"config", "--load", "bogus", "--file", sample}, "", 255, "", {}},
      {"missing file", {"config", "--load", "all", "--file", fixtures + "missing.xml"}, "", 255,
       nullptr, {}},
      {"not well-formed", {"config", "--load", "all", "--file", fixtures + "not_well_formed.xml"},
       "", 255, nullptr, {}},
      {"usage", {"config"}, "", 129, nullptr, {}},
      // Runs readelf through a pipe, which must be closed again; the report's status, which
      // depends on this machine's RAM, is the config tests' business.
      {"report", {"config", "--list"}, "", kAnyStatus, nullptr, {}},
  });
}

TEST(Descriptors, MallocDebugAndMemStressKeepOnlyTheDriver) {
  SelfAsTarget target;
  const std::string dump_end =
      "log pid=" + target.pid() + " sec=now tag=malloc_debug msg=END\n" + kHeld;
  run_endings({
      {"request", {"malloc-debug", "-e", target.pid()}, "", 0, "", {}},
      {"dump", {"malloc-debug", "-d", target.pid()}, dump_end, 0, "", {kStream, kStream}},
      {"dump without end", {"malloc-debug", "-d", target.pid()}, "version 65536\n", 129,
       kEndOfStream, {kStream}},
      {"no such process", {"malloc-debug", "-s", "99999999"}, "", 255,
       "error: install malloc_debug failed. No such process\n\n", {}},
      {"pid not a number", {"malloc-debug", "-e", "12x"}, "", 129,
       "fatal: pid expects a numerical value\n", {}},
      {"no switch", {"malloc-debug", "1"}, "", 129, nullptr, {}},
      {"fill", {"mem-stress", "1"}, "", 0, "", {}},
      {"negative size", {"mem-stress", "-2"}, "", 129,
       "fatal: sz should not be a nagative value\n", {}},
  });
}

// The daemon keeps the driver, /proc/meminfo (its reader is written to be called again) and its
// two logs; report files and kernel files are closed after use, whatever they held.
TEST(Descriptors, AgingKeepsTheDriverItsMeminfoReaderAndItsLogs) {
  KESTREL_REQUIRE_SANDBOX();
  const std::string folder = "/data/tarvo/heapdump/kestrel/";
  const std::string meminfo = "/proc/meminfo cloexec";
  const std::string log = folder + "log.txt cloexec", device = folder + "device.txt cloexec";
  const struct {
    Ending ending;
    bool meminfo, heapdump;
  } cases[] = {
      {{"end of stream", {"aging"}, "log msg=x\n", 129, kEndOfStream,
        {kStream, meminfo, log, device}}, true, true},
      {{"no device", {"aging"}, "device absent\n", 129,
        "fatal: aging: kestrel dev does not exist\n", {}}, true, true},
      {{"no meminfo", {"aging"}, kHeld, 129, "fatal: aging: meminfo parse failed\n",
        {kStream, kStream}}, false, true},
      {{"no heapdump folder", {"aging"}, kHeld, 129,
        "fatal: aging: daemon start failed, reason: No such file or directory\n",
        {kStream, kStream, meminfo}}, true, false},
  };
  for (const auto& c : cases) {
    Sandbox box;
    if (c.meminfo) box.write_file("/proc/meminfo", "MemTotal: 1024 kB\nIonTotalUsed: 2 kB\n");
    box.make_dir(c.heapdump ? "/data/tarvo/heapdump" : "/data/tarvo");
    run_endings({c.ending}, &box);
  }
}

// The process table opens each process's smaps or command line for one row and closes it.
TEST(Descriptors, MeminfoKeepsOnlyTheDriver) {
  const std::string self = std::to_string(getpid());
  const std::string procs = "proc pid=" + self + " uid=0 comm=self\nproc pid=4200001 comm=gone\n";
  run_endings({
      {"table with heap figures", {"meminfo", "-v"}, procs, 0, "", {kStream}},
      {"one process with its command line", {"meminfo", "-e", self}, procs, 0, "", {kStream}},
      {"unknown pid", {"meminfo", "-p", "77"}, procs, 129, "fatal: read mem stat failed.\n",
       {kStream}},
      {"nothing read", {"meminfo"}, "version 65536\n", 129, "fatal: meminfo: read nothing.\n",
       {kStream}},
      {"no device", {"meminfo"}, "device absent\n", 129, "fatal: cannot get kestrel version.\n",
       {}},
      {"two pids", {"meminfo", "1", "2"}, procs, 129, nullptr, {kStream}},
  });
}

// A pidfd is opened per process compacted; this test process lends its own memory.
TEST(Descriptors, CompactKeepsNothing) {
  run_endings({
      {"one process", {"compact", "--pid", std::to_string(getpid()), "--file"}, "", 0, "", {}},
      {"vanished process", {"compact", "--pid", "4200001"}, "", 0, "", {}},
      {"usage", {"compact", "-h"}, "", 129, nullptr, {}},
  });
}

// The walk over every process, in a fixture /proc whose one process is gone by the time its
// pidfd is asked for.
TEST(Descriptors, CompactWalkKeepsNothing) {
  KESTREL_REQUIRE_SANDBOX();
  Sandbox box;
  box.write_file("/proc/4200001/status", "Name:\tgone\n");
  box.write_file("/proc/4200001/cmdline", std::string("gone\0", 5));
  box.write_file("/proc/4200001/maps", "10000000-10001000 r--p 00000000 fe:00 7 /system/lib64/libc.so\n");
  run_endings({{"walk", {"compact"}, "", 0, "error: open pid failed\n\n", {}}}, &box);
}

TEST(Descriptors, UtilsKeepsOnlyTheSceneDevice) {
  TempDir dir;
  const std::string elf = dir.write("lib.so", kestrel_fixtures::elf_image({kestrel_fixtures::elf_load(16384)}));
  const std::string text = dir.write("notes.txt", "not an ELF file\n");
  const std::string fifo = dir.file("pipe.so");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  auto not_elf = [](const std::string& path) {
    return "fatal: " + path + " is not a valid elf file or file does not exit.\n";
  };
  const std::string not_elf_text = not_elf(text), not_elf_fifo = not_elf(fifo);
  run_endings({
      {"one file", {"utils", "--elf-align", elf}, "", 0, "error: \nVerify align pass! (^_^)\n\n", {}},
      {"not an ELF file", {"utils", "--elf-align", text}, "", 129, not_elf_text.c_str(), {}},
      // Nobody writes to it: opening it must not wait for a writer.
      {"a FIFO", {"utils", "--elf-align", fifo}, "", 129, not_elf_fifo.c_str(), {}},
      {"scene", {"utils", "--set-scene", "1"}, "", 0, "", {kSceneDevice}},
      {"scene refused", {"utils", "--clear-scene", "1"}, "fail 0xFA03 ENOTTY\n", 255,
       "error: Failed to set: 0 scene @(>.<)@\n", {kSceneDevice}},
      {"scene out of range", {"utils", "--set-scene", "12"}, "", 255,
       "error: Failed to set: 1 scene @(>.<)@\n", {}},
      {"usage", {"utils"}, "", 129, nullptr, {}},
  });
}

TEST(Descriptors, UtilsDeviceWalkKeepsNothing) {
  KESTREL_REQUIRE_SANDBOX();
  Sandbox box;
  box.write_file("/proc/mounts", "/dev/block/dm-1 /vendor erofs ro 0 0\n"
                                 "/dev/block/dm-2 /odm erofs ro 0 0\n");
  box.write_file("/vendor/lib64/libsmall.so",
                 kestrel_fixtures::elf_image({kestrel_fixtures::elf_load(4096)}));
  box.write_file("/vendor/lib64/README", "not an ELF file\n");
  run_endings({{"walk", {"utils", "--elf-align"}, "", 0,
                "error: cannot read directory /odm: No such file or directory\n", {}}}, &box);
}

}  // namespace
}  // namespace kestrel_e2e
