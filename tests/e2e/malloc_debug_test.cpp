// SPDX-License-Identifier: Apache-2.0
// malloc-debug end to end against a live target (a stand-in process that prints the value of each
// real-time signal it takes): the request each switch sends, the success line, the pid checks,
// and the dump that follows the driver's log under the simulator.
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

// In a case, "PID" stands for the target's pid.
struct Case {
  std::vector<std::string> args;
  std::string out, err;
  int status;
  std::string seen;  // the request values the target took
  std::string scenario = "";
};

std::string with_pid(std::string text, const std::string& pid) {
  for (size_t at; (at = text.find("PID")) != std::string::npos;) text.replace(at, 3, pid);
#ifdef KESTREL_TESTS_UNDER_EMULATION
  // Under qemu-user the kernel shows the emulator's command line for the target, and the
  // success line carries that name instead.
  std::ifstream cmdline("/proc/" + pid + "/cmdline");
  std::string shown;
  std::getline(cmdline, shown, '\0');
  const std::string name = "com.example.heapdemo:";
  if (size_t at = text.find(name); at != std::string::npos) text.replace(at, name.size(), shown + ":");
#endif
  return text;
}

// Runs `kestrel malloc-debug` at a fresh target, started under a package-like name with one more
// argument so that the success line shows the command line cut at its first NUL. The target's
// standard input and output are one socket; shutting our writing side ends it.
void expect_runs(const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv), 0);
    const pid_t target = fork();
    if (target == 0) {
      dup2(sv[1], STDIN_FILENO);
      dup2(sv[1], STDOUT_FILENO);
      const char* argv[] = {"com.example.heapdemo", "--heap-demo", nullptr};
      execv(KESTREL_SIGTARGET, const_cast<char* const*>(argv));
      _exit(127);
    }
    close(sv[1]);
    FILE* io = fdopen(sv[0], "r");
    char ready[16] = {};
    ASSERT_STREQ(fgets(ready, sizeof(ready), io), "ready\n");
    const std::string pid = std::to_string(target);
    std::vector<std::string> args = {"malloc-debug"};
    for (const std::string& arg : c.args) args.push_back(with_pid(arg, pid));
    Result r = run_kestrel(args, {.scenario = with_pid(c.scenario, pid)});
    EXPECT_EQ(r.out, with_pid(c.out, pid));
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.status, c.status);
    // A signal the target has no handler for would have killed it: it must end on its own.
    shutdown(sv[0], SHUT_WR);
    std::string seen;
    for (int ch; (ch = fgetc(io)) != EOF;) seen += static_cast<char>(ch);
    fclose(io);
    int status = -1;
    EXPECT_EQ(waitpid(target, &status, 0), target);
    EXPECT_EQ(status, 0) << "target wait status";
    EXPECT_EQ(seen, c.seen);
  }
}

std::string success(const std::string& request) {
  return "com.example.heapdemo:PID " + request + " malloc debug successfully\n";
}

// Of several switches the first in the order enable, disable, stat, purge, purge-all wins.
TEST(MallocDebug, EachSwitchSendsItsRequest) {
  expect_runs({
      {{"-e", "PID"}, success("enable"), "", 0, "value=0\n"},
      {{"-D", "PID"}, success("disable"), "", 0, "value=2\n"},
      {{"-s", "PID"}, success("alloc-stats"), "", 0, "value=3\n"},
      {{"-p", "PID"}, success("alloc-purge"), "", 0, "value=4\n"},
      {{"--purgeall", "PID"}, success("alloc-purge_all"), "", 0, "value=5\n"},
      {{"-D", "--enable", "PID"}, success("enable"), "", 0, "value=0\n"},
      {{"-P", "-s", "PID"}, success("alloc-stats"), "", 0, "value=3\n"},
      {{"-P", "-p", "-D", "PID"}, success("disable"), "", 0, "value=2\n"},
  });
}

// Bad pids fail before any signal goes out; pids above the kernel's limit are never held.
TEST(MallocDebug, BadArgumentsFail) {
  const std::string usage =
      "usage: kestrel malloc-debug [options] [--] pid\n"
      "    -e,--enable           install malloc debug hook\n"
      "    -d,--dump             dump backtrace of pid\n"
      "    -D,--disable          disable malloc debug hook\n"
      "    -p,--purge            [allocator] M_PURGE\n"
      "    -P,--purgeall         [allocator] M_PURGE_ALL\n"
      "    -s,--stat             [allocator] M_LOG_STATS\n"
      "\n";
  expect_runs({
      {{"-e"}, "", usage, 129, ""},
      {{"PID"}, "", usage, 129, ""},
      {{"-e", "0"}, "", "fatal: pid need a positive value\n", 129, ""},
      {{"-e", "-PID"}, "", "fatal: pid need a positive value\n", 129, ""},
      {{"-e", "PIDx"}, "", "fatal: pid expects a numerical value\n", 129, ""},
      {{"-s", "4200001"}, "", "error: install malloc_debug failed. No such process\n\n", 255, ""},
  });
}

std::string record(const std::string& msg) {
  return "log pid=PID tid=PID prio=4 sec=now nsec=0 tag=malloc_debug msg=" + msg + "\n";
}

// The dump prints the target's records from the second of the request on and stops after the
// hook's last record; an end from another process or from before the request is passed over.
TEST(MallocDebug, DumpFollowsTheTargetsLogToItsEnd) {
  const std::string log =
      record("heap snapshot") +
      "log pid=1 tid=1 prio=4 sec=now nsec=0 tag=malloc_debug msg=END of another dump\n"
      "log pid=PID tid=PID prio=4 sec=1000 nsec=0 tag=malloc_debug msg=END of an old dump\n" +
      record("size 4096\\n  #00 pc 0x1234");
  const std::string printed = "heap snapshot\nsize 4096\n  #00 pc 0x1234\n";
  const std::string to_file = "Dumping to file /data/local/tmp/heap.txt";
  const std::string after = record("after the end");
  expect_runs({
      {{"-d", "PID"}, printed + "END of dump\n", "", 0, "value=1\n",
       log + record("END of dump") + after + "at-end hold\n"},
      {{"--dump", "PID"}, printed + to_file + "\n", "", 0, "value=1\n",
       log + record(to_file) + after + "at-end hold\n"},
      // The request is sent before the log is followed.
      {{"-d", "PID"}, printed + "after the end\n", "fatal: read: timeout!\n\n", 129, "value=1\n",
       log + after + "at-end hold\n"},
      {{"-d", "PID"}, printed + "after the end\n", "fatal: read: Unexpected EOF!\n\n", 129,
       "value=1\n", log + after + "at-end eof\n"},
      {{"-d", "PID"}, "", "fatal: open kestrel failed\n", 129, "value=1\n", "device absent\n"},
  });
}

}  // namespace
}  // namespace kestrel_e2e
