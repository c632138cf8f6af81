// malloc-debug end to end: the request each switch sends to a live target (a stand-in process
// that records the values of the real-time signals it takes), the success line, the pid checks,
// and the dump that follows the driver's log under the simulator.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

namespace kestrel_e2e {
namespace {

constexpr char kTargetName[] = "com.example.heapdemo";

constexpr char kUsage[] =
    "usage: kestrel malloc-debug [options] [--] pid\n"
    "    -e,--enable           install malloc debug hook\n"
    "    -d,--dump             dump backtrace of pid\n"
    "    -D,--disable          disable malloc debug hook\n"
    "    -p,--purge            [allocator] M_PURGE\n"
    "    -P,--purgeall         [allocator] M_PURGE_ALL\n"
    "    -s,--stat             [allocator] M_LOG_STATS\n"
    "\n";

// The stand-in target, started under a package-like name with one more argument so that the
// success line shows whether the command line was cut at its first NUL. It ends when its input
// is closed.
class Target {
 public:
  Target() {
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) < 0) return;
    if (pipe2(out, O_CLOEXEC) < 0) {
      close(in[0]);
      close(in[1]);
      return;
    }
    const char* argv[] = {kTargetName, "--heap-demo", nullptr};
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      execv(KESTREL_SIGTARGET, const_cast<char* const*>(argv));
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
    while (seen_.find('\n') == std::string::npos && read_some()) {
    }
  }
  ~Target() {
    if (in_ >= 0) close(in_);
    if (out_ >= 0) close(out_);
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  bool ready() const { return pid_ > 0 && seen_ == "ready\n"; }
  pid_t pid() const { return pid_; }

  // Ends the target and returns the lines it printed for the requests it received. A signal
  // it has no handler for would have killed it, so it must end on its own.
  std::string requests_seen() {
    close(in_);
    in_ = -1;
    while (read_some()) {
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "target status " << status;
    return seen_.substr(std::min(seen_.size(), sizeof("ready\n") - 1));
  }

 private:
  bool read_some() {
    char buf[256];
    ssize_t n;
    do {
      n = read(out_, buf, sizeof(buf));
    } while (n < 0 && errno == EINTR);
    if (n <= 0) return false;
    seen_.append(buf, static_cast<size_t>(n));
    return true;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  std::string seen_;
};

struct RequestCase {
  std::vector<std::string> switches;
  std::string seen;  // what the target received
  std::string name;  // as printed in the success line
};

TEST(MallocDebug, EachSwitchSendsItsRequestAndTheFirstInOrderWins) {
  const RequestCase cases[] = {
      {{"-e"}, "value=0\n", "enable"},
      {{"--enable"}, "value=0\n", "enable"},
      {{"-D"}, "value=2\n", "disable"},
      {{"-s"}, "value=3\n", "alloc-stats"},
      {{"-p"}, "value=4\n", "alloc-purge"},
      {{"--purgeall"}, "value=5\n", "alloc-purge_all"},
      {{"-e", "-D"}, "value=0\n", "enable"},
      {{"-P", "-s"}, "value=3\n", "alloc-stats"},
      {{"-P", "-p", "-D"}, "value=2\n", "disable"},
  };
  for (const RequestCase& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.switches));
    Target target;
    ASSERT_TRUE(target.ready());
    std::vector<std::string> args = {"malloc-debug"};
    args.insert(args.end(), c.switches.begin(), c.switches.end());
    args.push_back(std::to_string(target.pid()));

    Result r = run_kestrel(args);
    EXPECT_EQ(r.out, std::string(kTargetName) + ":" + std::to_string(target.pid()) + " " +
                         c.name + " malloc debug successfully\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(target.requests_seen(), c.seen);
  }
}

TEST(MallocDebug, BadPidIsRefusedBeforeAnySignalIsSent) {
  Target target;
  ASSERT_TRUE(target.ready());
  const std::string pid = std::to_string(target.pid());
  struct {
    std::string arg;
    std::string err;
  } const cases[] = {
      {"0", "fatal: pid need a positive value\n"},
      {"-5", "fatal: pid need a positive value\n"},
      {"-" + pid, "fatal: pid need a positive value\n"},
      {pid + "x", "fatal: pid expects a numerical value\n"},
      {pid + ".0", "fatal: pid expects a numerical value\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arg);
    Result r = run_kestrel({"malloc-debug", "-e", c.arg});
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.status, 129);
  }
  EXPECT_EQ(target.requests_seen(), "");
}

TEST(MallocDebug, MissingSwitchOrPidPrintsUsage) {
  const std::vector<std::string> cases[] = {
      {"malloc-debug"},
      {"malloc-debug", "-e"},
      {"malloc-debug", "1"},
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(testing::PrintToString(args));
    Result r = run_kestrel(args);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, kUsage);
    EXPECT_EQ(r.status, 129);
  }
}

TEST(MallocDebug, VanishedTargetReportsTheSystemError) {
  // A child that has been reaped leaves a pid that no process holds.
  pid_t gone = fork();
  ASSERT_GE(gone, 0);
  if (gone == 0) _exit(0);
  ASSERT_EQ(waitpid(gone, nullptr, 0), gone);

  Result r = run_kestrel({"malloc-debug", "-s", std::to_string(gone)});
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "error: install malloc_debug failed. No such process\n\n");
  EXPECT_EQ(r.status, 255);
}

// One driver log record in the simulator's scenario syntax; sec is a number or "now".
std::string log_record(pid_t pid, const std::string& sec, const std::string& msg) {
  const std::string p = std::to_string(pid);
  return "log pid=" + p + " tid=" + p + " prio=4 sec=" + sec + " nsec=0 tag=malloc_debug msg=" +
         msg + "\n";
}

// The target's records (stamped now) around `ending`, with an end marker from another process
// and one from before the request, both of which must be passed over.
std::string dump_scenario(pid_t target, const std::string& ending, const std::string& at_end) {
  return log_record(target, "now", "heap snapshot") +
         log_record(target + 1, "now", "END of another process's dump") +
         log_record(target, "1000", "END of an old dump") +
         log_record(target, "now", "size 4096\\n  #00 pc 0x1234") +
         (ending.empty() ? "" : log_record(target, "now", ending)) +
         log_record(target, "now", "after the end") +
         "at-end " + at_end + "\n";
}

TEST(MallocDebug, DumpPrintsTheTargetsEntriesThroughItsEnd) {
  const std::string endings[] = {"END of dump", "Dumping to file /data/local/tmp/heap.txt"};
  for (const std::string& ending : endings) {
    SCOPED_TRACE(ending);
    Target target;
    ASSERT_TRUE(target.ready());
    RunOptions opts;
    opts.scenario = dump_scenario(target.pid(), ending, "hold");

    Result r = run_kestrel({"malloc-debug", "-d", std::to_string(target.pid())}, opts);
    EXPECT_EQ(r.out, "heap snapshot\nsize 4096\n  #00 pc 0x1234\n" + ending + "\n");
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(target.requests_seen(), "value=1\n");
  }
}

TEST(MallocDebug, DumpWithoutAnEndIsFatal) {
  const std::string printed = "heap snapshot\nsize 4096\n  #00 pc 0x1234\nafter the end\n";
  struct {
    std::string name;
    std::string scenario_end;  // "" for no log at all
    std::string out;
    std::string err;
  } const cases[] = {
      {"silent target times out", "hold", printed, "fatal: read: timeout!\n\n"},
      {"log closes", "eof", printed, "fatal: read: Unexpected EOF!\n\n"},
      {"no driver", "", "", "fatal: open kestrel failed\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Target target;
    ASSERT_TRUE(target.ready());
    RunOptions opts;
    opts.scenario = c.scenario_end.empty() ? "device absent\n"
                                           : dump_scenario(target.pid(), "", c.scenario_end);

    Result r = run_kestrel({"malloc-debug", "--dump", std::to_string(target.pid())}, opts);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.status, 129);
    // The request goes out before the log is followed.
    EXPECT_EQ(target.requests_seen(), "value=1\n");
  }
}

}  // namespace
}  // namespace kestrel_e2e
