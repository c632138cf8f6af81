// The dispatcher and `version`, run as the shipped binary: the command list, unknown words, the
// driver's version through the simulator, and the harness's own run modes (wrapper, pty,
// sandbox, time-out).
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/e2e/harness.h"

namespace kestrel_e2e {
namespace {

const char kCommandList[] =
    "kestrel is a command line tool for debugging memory\n"
    "\n"
    "These are kestrel commands used in various situations:\n"
    "   version        show current version.\n"
    "   meminfo        show pid memory usage.\n"
    "   compact        compact process\n"
    "   malloc-debug   enable procs malloc debug (64bit only)\n"
    "   logger         dump kestrel logger.\n"
    "   mem-stress     memory stress test.\n"
    "   aging          start a aging daemon.\n"
    "   utils          misc utilities.\n"
    "   config         get or set memory options\n";

TEST(Dispatcher, NoArgumentsListsCommandsAndExitsOne) {
  Result r = run_kestrel({});
  EXPECT_EQ(r.out, kCommandList);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 1);
}

TEST(Dispatcher, CommandListOnTerminalIsTheSame) {
  RunOptions opts;
  opts.pty = true;
  Result r = run_kestrel({}, opts);
  EXPECT_EQ(r.out, kCommandList);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 1);
}

TEST(Dispatcher, OnlyTheExactWordIsACommand) {
  for (const char* word : {"Version", "versio", "versions", "-h", "--help", ""}) {
    SCOPED_TRACE(word);
    Result r = run_kestrel({word, "version"});
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, kestrel_binary() + ": '" + word + "' is not a kestrel command.\n");
    EXPECT_EQ(r.status, 1);
  }
}

TEST(Dispatcher, HandlerStatusBecomesExitStatus) {
  // Without a pid, malloc-debug ends with status 129; what it prints is its own business.
  Result r = run_kestrel({"malloc-debug"});
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err, "");
  EXPECT_EQ(r.status, 129);
}

struct VersionCase {
  const char* name;
  std::string scenario;  // a trace line is added
  std::vector<std::string> args;
  std::string out, err;
  int status;
  std::string trace;
};

TEST(Version, AsksTheDriver) {
  const std::string fatal = "fatal: cannot get kestrel version.\n";
  const VersionCase cases[] = {
      {"splits major and minor", "version 131077\n", {"version"}, "kestrel version 2.5\n", "", 0,
       "open O_RDONLY\n0xFA01\n"},
      {"ignores extra words", "version 131077\n", {"version", "extra", "words"},
       "kestrel version 2.5\n", "", 0, "open O_RDONLY\n0xFA01\n"},
      {"default driver is 1.0", "", {"version"}, "kestrel version 1.0\n", "", 0,
       "open O_RDONLY\n0xFA01\n"},
      {"minor is the low half", "version 0x7fff0010\n", {"version"}, "kestrel version 32767.16\n",
       "", 0, "open O_RDONLY\n0xFA01\n"},
      {"interrupted calls are reissued", "eintr open\neintr 0xFA01\nversion 65539\n", {"version"},
       "kestrel version 1.3\n", "", 0, "open O_RDONLY\nopen O_RDONLY\n0xFA01\n0xFA01\n"},
      {"device absent", "device absent\n", {"version"}, "", fatal, 129, "open O_RDONLY\n"},
      {"open refused", "fail open EACCES\n", {"version"}, "", fatal, 129, "open O_RDONLY\n"},
      {"request refused", "fail 0xFA01 ENOTTY\n", {"version"}, "", fatal, 129,
       "open O_RDONLY\n0xFA01\n"},
  };
  for (const VersionCase& c : cases) {
    SCOPED_TRACE(c.name);
    TempDir dir;
    RunOptions opts;
    opts.scenario = c.scenario + "trace " + dir.file("trace") + "\n";
    Result r = run_kestrel(c.args, opts);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(dir.read("trace"), c.trace);
  }
}

TEST(Version, HostModeAnswersOneZero) {
  Result r = run_kestrel({"version"});
  EXPECT_EQ(r.out, "kestrel version 1.0\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
}

TEST(Version, WithoutSimulatorThereIsNoDevice) {
  struct stat st;
  if (stat("/dev/kestrel", &st) == 0) GTEST_SKIP() << "this machine has a real /dev/kestrel";
  RunOptions opts;
  opts.simulator = false;
  Result r = run_kestrel({"version"}, opts);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "fatal: cannot get kestrel version.\n");
  EXPECT_EQ(r.status, 129);
}

TEST(Simulator, WrapperRunsKestrelWithScenario) {
  TempDir dir;
  std::string scenario = dir.write("scenario", "version 0x30002\n");
  RunOptions opts;
  opts.simulator = false;
  Result r = run_program({simulator_wrapper(), "--scenario", scenario, "--", "kestrel", "version"}, opts);
  EXPECT_EQ(r.out, "kestrel version 3.2\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
}

TEST(Simulator, BadScenarioStopsTheProgramLoudly) {
  RunOptions opts;
  opts.scenario = "version 1\nfail 0xFA01 EWHAT\n";
  Result r = run_kestrel({"version"}, opts);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find("line 2: unknown errno 'EWHAT'\n"), std::string::npos) << r.err;
  EXPECT_EQ(r.status, 125);
}

TEST(Harness, ChildPastItsTimeIsKilled) {
  RunOptions opts;
  opts.simulator = false;
  opts.timeout_ms = 200;
  Result r = run_program({"/bin/sh", "-c", "echo started; exec sleep 30"}, opts);
  EXPECT_TRUE(r.timed_out);
  EXPECT_EQ(r.out, "started\n");
  EXPECT_EQ(r.status, 128 + 9);
}

TEST(Harness, PtyHasTheRequestedSize) {
  RunOptions opts;
  opts.simulator = false;
  opts.pty = true;
  opts.pty_cols = 101;
  opts.pty_rows = 33;
  Result r = run_program({"/bin/sh", "-c", "stty size <&1; echo done"}, opts);
  EXPECT_EQ(r.out, "33 101\ndone\n");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
}

TEST(Harness, StdinReachesTheChild) {
  RunOptions opts;
  opts.simulator = false;
  opts.stdin_data = std::string(100000, 'x') + "\n";
  Result r = run_program({"/usr/bin/wc", "-c"}, opts);
  EXPECT_EQ(r.out, "100001\n");
  EXPECT_EQ(r.status, 0);
}

TEST(Sandbox, RunsKestrelOverFixtureFiles) {
  KESTREL_REQUIRE_SANDBOX();
  std::string root;
  {
    Sandbox box;
    root = box.root();
    box.write_file("/proc/meminfo", "MemTotal:        1024 kB\n");
    box.write_file("/data/note.txt", "fixture\n");

    RunOptions opts;
    opts.scenario = "version 131077\ntrace /tmp/trace\n";
    Result r = box.run({"version"}, opts);
    EXPECT_EQ(r.out, "kestrel version 2.5\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(box.read_file("/tmp/trace"), "open O_RDONLY\n0xFA01\n");

    opts.simulator = false;
    r = box.run_program({"/bin/sh", "-c", "cat /proc/meminfo /data/note.txt; ls /proc/self/fd >/dev/null && echo self"}, opts);
    EXPECT_EQ(r.out, "MemTotal:        1024 kB\nfixture\nself\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);

    r = box.run_program({"/bin/sh", "-c", "echo x > /usr/x || echo x > " KESTREL_SOURCE_DIR "/x"}, opts);
    EXPECT_NE(r.status, 0) << "system and source folders must be read-only";
  }
  struct stat st;
  EXPECT_NE(stat(root.c_str(), &st), 0) << "the sandbox root was left behind";
}

}  // namespace
}  // namespace kestrel_e2e
