// Descriptors end to end: every command, on its normal and on its failure endings, must end
// holding no descriptor it opened beyond those it keeps on purpose: the cached descriptors of
// /dev/kestrel, and the aging daemon's two logs and its /proc/meminfo reader. The simulator's
// descriptor report lists what the program opened and still holds as it calls exit().
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

namespace kestrel_e2e {
namespace {

// The read-only device as the simulator makes it: one end of a socket pair. While the record
// stream stays open (host mode, "at-end hold", or records still being fed) the simulator's own
// end is there too and shows the same way.
constexpr char kStream[] = "socket:unix/seqpacket cloexec";
constexpr char kEndOfStream[] = "fatal: read: Unexpected EOF!\n\n";
constexpr char kHeld[] = "at-end hold\n";

// One ending of a command. A null `err` is not compared: usage texts (the commands' own tests
// prove them) and complaints of host programs.
struct Ending {
  std::string name;
  std::vector<std::string> args;
  std::string scenario;  // driver simulator scenario; empty: host mode
  int status;
  const char* err;
  std::vector<std::string> kept;  // the report without descriptor numbers, in any order
};

// The descriptions of a report ("5 /proc/meminfo cloexec" gives "/proc/meminfo cloexec"),
// sorted, or one line saying there was none. Numbers and order are left out: the simulator
// closes its end of a finished stream at a moment of its own, so later descriptors may or may
// not take its number.
std::vector<std::string> report_of(const std::string& path) {
  std::ifstream in(path);
  if (!in) return {"<no report at " + path + ">"};
  std::vector<std::string> kept;
  for (std::string line; std::getline(in, line);) kept.push_back(line.substr(line.find(' ') + 1));
  std::sort(kept.begin(), kept.end());
  return kept;
}

void expect_ending(const Ending& e, const Result& r, const std::vector<std::string>& kept) {
  EXPECT_FALSE(r.timed_out);
  EXPECT_EQ(r.status, e.status);
  if (e.err != nullptr) {
    EXPECT_EQ(r.err, e.err);
  }
  std::vector<std::string> want = e.kept;
  std::sort(want.begin(), want.end());
  EXPECT_EQ(kept, want);
}

void run_on_host(const std::vector<Ending>& endings) {
  for (const Ending& e : endings) {
    SCOPED_TRACE(e.name);
    TempDir dir;
    RunOptions opts;
    opts.scenario = e.scenario;
    opts.env = {"KESTREL_SIM_FD_REPORT=" + dir.file("fds")};
    Result r = run_kestrel(e.args, opts);
    expect_ending(e, r, report_of(dir.file("fds")));
  }
}

// The test process itself takes malloc-debug's request: its signal is blocked here, so it stays
// pending instead of ending the process, and is taken back when the object goes.
class SelfAsTarget {
 public:
  SelfAsTarget() {
    sigemptyset(&set_);
    sigaddset(&set_, SIGRTMAX - 19);
    sigprocmask(SIG_BLOCK, &set_, &old_);
  }
  ~SelfAsTarget() {
    const timespec now = {};
    while (sigtimedwait(&set_, nullptr, &now) > 0) {
    }
    sigprocmask(SIG_SETMASK, &old_, nullptr);
  }
  SelfAsTarget(const SelfAsTarget&) = delete;
  SelfAsTarget& operator=(const SelfAsTarget&) = delete;

  std::string pid() const { return std::to_string(getpid()); }

 private:
  sigset_t set_, old_;
};

TEST(Descriptors, DispatcherAndVersionKeepOnlyTheDriver) {
  const std::string unknown = kestrel_binary() + ": 'bogus' is not a kestrel command.\n";
  run_on_host({
      {"no command", {}, "", 1, "", {}},
      {"unknown command", {"bogus"}, "", 1, unknown.c_str(), {}},
      {"version", {"version"}, "version 131077\n", 0, "", {kStream}},
      {"version in host mode", {"version"}, "", 0, "", {kStream, kStream}},
      {"version without device", {"version"}, "device absent\n", 129,
       "fatal: cannot get kestrel version.\n", {}},
      {"version refused", {"version"}, "fail 0xFA01 EIO\n", 129,
       "fatal: cannot get kestrel version.\n", {kStream}},
  });
}

TEST(Descriptors, LoggerKeepsOnlyTheDriver) {
  run_on_host({
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
  run_on_host({
      {"load", {"config", "--load", "all", "--file", sample}, "", 0, "", {}},
      {"invalid group", {"config", "--load", "bogus", "--file", sample}, "", 255, "", {}},
      {"missing file", {"config", "--load", "all", "--file", fixtures + "missing.xml"}, "", 255,
       nullptr, {}},
      {"not well-formed", {"config", "--load", "all", "--file", fixtures + "not_well_formed.xml"},
       "", 255, nullptr, {}},
      {"invalid value", {"config", "--load", "zram0", "--file", fixtures + "invalid_values.xml"},
       "", 255, nullptr, {}},
      {"usage", {"config"}, "", 129, nullptr, {}},
      // Runs readelf through a pipe, which must be closed again.
      {"report", {"config", "--list"}, "", 0, nullptr, {}},
  });
}

TEST(Descriptors, MallocDebugAndMemStressKeepOnlyTheDriver) {
  SelfAsTarget target;
  const std::string dump_end =
      "log pid=" + target.pid() + " sec=now tag=malloc_debug msg=END\n" + kHeld;
  run_on_host({
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
      {{"end of stream", {"aging"}, "log tag=cmd msg=true\nlog msg=x\n", 129, kEndOfStream,
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
    SCOPED_TRACE(c.ending.name);
    Sandbox box;
    if (c.meminfo) box.write_file("/proc/meminfo", "MemTotal: 1024 kB\nIonTotalUsed: 2 kB\n");
    box.make_dir(c.heapdump ? "/data/tarvo/heapdump" : "/data/tarvo");
    RunOptions opts;
    opts.scenario = c.ending.scenario;
    opts.env = {"KESTREL_SIM_FD_REPORT=/tmp/fds"};
    Result r = box.run(c.ending.args, opts);
    expect_ending(c.ending, r, report_of(box.host_path("/tmp/fds")));
  }
}

}  // namespace
}  // namespace kestrel_e2e
