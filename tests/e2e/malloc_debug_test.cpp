// SPDX-License-Identifier: Apache-2.0
// malloc-debug end to end against live targets: a stand-in that prints the request values it
// takes, for the pid checks and the dump of a scripted log; and the VM test's target program
// with the allocator hook and the simulator preloaded, whose answers reach kestrel's log.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

// A target process with `env` added, started as `name` with one more argument so that its
// success line shows the command line cut at its first NUL. Its standard input and output are
// one socket: we read its lines, and shutting our writing side ends the stand-in.
class Target {
 public:
  Target(const std::string& program, const std::string& name, const std::vector<std::string>& env = {})
      : name_(name) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(sv[1], STDIN_FILENO);
      dup2(sv[1], STDOUT_FILENO);
      for (const std::string& entry : env) putenv(const_cast<char*>(entry.c_str()));
      execl(program.c_str(), name.c_str(), "--heap-demo", nullptr);
      _exit(127);
    }
    close(sv[1]);
    io_ = fdopen(sv[0], "r");
  }
  ~Target() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
    if (io_ != nullptr) fclose(io_);
  }

  std::string line() {
    char buf[64] = {};
    return io_ != nullptr && fgets(buf, sizeof(buf), io_) != nullptr ? buf : "";
  }
  std::string pid() const { return std::to_string(pid_); }
  bool alive() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

  // `text` with "PID" the target's pid and "NAME" the program name its success lines show:
  // under qemu-user the kernel shows the emulator's command line for it.
  std::string expand(std::string text) const {
    std::string name = name_;
#ifdef KESTREL_TESTS_UNDER_EMULATION
    name = read_text("/proc/" + pid() + "/cmdline").c_str();  // up to the first NUL
#endif
    for (size_t at; (at = text.find("PID")) != std::string::npos;) text.replace(at, 3, pid());
    for (size_t at; (at = text.find("NAME")) != std::string::npos;) text.replace(at, 4, name);
    return text;
  }

  // Ends the stand-in by closing its input, which it must take with status 0 (a signal it has
  // no handler for would have killed it). Returns what it wrote until then.
  std::string finish() {
    shutdown(fileno(io_), SHUT_WR);
    std::string rest;
    for (int ch; (ch = fgetc(io_)) != EOF;) rest += static_cast<char>(ch);
    int status = -1;
    waitpid(pid_, &status, 0);
    EXPECT_EQ(status, 0) << "target wait status";
    pid_ = -1;
    return rest;
  }

 private:
  const std::string name_;
  pid_t pid_ = -1;
  FILE* io_ = nullptr;
};

// In a case, "PID" stands for the target's pid, "NAME" for its name (see Target::expand).
struct Case {
  std::vector<std::string> args;
  std::string out, err;
  int status;
  std::string scenario = "";
};

// Runs `kestrel malloc-debug` at a fresh stand-in with a package-like name, which must take the
// request values `seen`.
void expect_runs(const std::string& seen, const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    Target target(KESTREL_SIGTARGET, "com.example.heapdemo");
    ASSERT_EQ(target.line(), "ready\n");
    std::vector<std::string> args = {"malloc-debug"};
    for (const std::string& arg : c.args) args.push_back(target.expand(arg));
    Result r = run_kestrel(args, {.scenario = target.expand(c.scenario)});
    EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tuple(target.expand(c.out), c.err, c.status));
    EXPECT_EQ(target.finish(), seen);
  }
}

std::string success(const std::string& request) {
  return "NAME:PID " + request + " malloc debug successfully\n";
}

// Bad pids fail before any signal goes out; pids above the kernel's limit are never held.
TEST(MallocDebug, BadArgumentsFail) {
  // What -h prints: its texts are checked against the manual page, its layout with the other
  // commands' usage.
  const std::string usage = run_kestrel({"malloc-debug", "-h"}).err;
  ASSERT_TRUE(usage.starts_with("usage: kestrel malloc-debug [options] [--] pid\n"));
  expect_runs("", {
      {{"-e"}, "", usage, 129},
      {{"PID"}, "", usage, 129},
      {{"-e", "0"}, "", "fatal: pid need a positive value\n", 129},
      {{"-e", "PIDx"}, "", "fatal: pid expects a numerical value\n", 129},
      {{"-s", "4200001"}, "", "error: install malloc_debug failed. No such process\n\n", 255},
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
  const std::string after = record("after the end") + "at-end hold\n";
  // The request is sent before the log is opened and followed.
  expect_runs("value=1\n", {
      {{"-d", "PID"}, printed + "END of dump\n", "", 0, log + record("END of dump") + after},
      {{"--dump", "PID"}, printed + to_file + "\n", "", 0, log + record(to_file) + after},
      {{"-d", "PID"}, printed + "after the end\n", "fatal: read: timeout!\n\n", 129, log + after},
      {{"-d", "PID"}, "", "fatal: open kestrel failed\n", 129, "device absent\n"},
  });
}

// The dump's group lines and the frames in the target itself, which name its functions. A frame
// shows the offset in its module, far below where a position-independent program or a library
// is mapped; the offsets differ from build to build. The frames in libc must name libc. The
// answer to the enable request shows too when it was written in the second the dump began.
std::string target_part(const std::string& dump) {
  static const std::regex frame("^  (#\\d\\d) pc 0{8}[0-9a-f]{8}  " KESTREL_HOOK_TARGET " \\((\\w+)\\+0x[0-9a-f]+\\)$",
                                std::regex::multiline);
  static const std::regex other(
      "^(?:  #\\d\\d pc 0{8}[0-9a-f]{8}  /\\S+/libc\\.so\\.6(?: \\(\\w+\\+0x[0-9a-f]+\\))?|  #\\d\\d _start|enabled: .*)\n",
      std::regex::multiline);
  return std::regex_replace(std::regex_replace(dump, frame, "  $1 $2"), other, "");
}

// Every request is answered in the log: the dump lists both call sites with their totals and
// ends the command on its END record; the target lives on. Of several switches the first in the
// order enable, disable, stat, purge, purge-all wins.
TEST(MallocHook, AnswersEveryRequest) {
  // The VM test's target program, run with the hook and the simulator preloaded; its log file is
  // the one the kestrel runs of `scenario` read.
  TempDir dir;
  const std::string scenario = "log-file " + dir.file("log") + "\n";
  Target target(KESTREL_HOOK_TARGET, KESTREL_HOOK_TARGET,
                {"LD_PRELOAD=" + simulator_library() + " " + KESTREL_HOOK_LIBRARY,
                 "KESTREL_SIM_SCENARIO=" + dir.write("scenario", scenario)});
  // Runs `kestrel malloc-debug options... pid` at the target, which must live on.
  auto request = [&](std::vector<std::string> args) {
    args.insert(args.begin(), "malloc-debug");
    args.push_back(target.pid());
    Result r = run_kestrel(args, {.scenario = scenario});
    EXPECT_TRUE(target.alive()) << testing::PrintToString(args);
    return r;
  };
  // The first line of the hook's first record whose text begins with `start`, with its byte
  // counts as "N bytes". A request returns once it is sent and the hook answers from a worker of
  // its own, so the log file is read again until the answer is there, for ten seconds at most.
  auto answer = [&](const std::string& start) {
    const std::string head = std::string("\4malloc_debug\0", 14);
    for (int tries = 0; tries < 1000; ++tries, usleep(10000)) {
      const std::string log = read_text(dir.file("log"));
      const size_t at = log.find(head + start), from = at + head.size();
      if (at == std::string::npos) continue;
      const std::string line = log.substr(from, log.find_first_of(std::string("\n\0", 2), from) - from);
      return std::regex_replace(line, std::regex("\\b\\d+ bytes"), "N bytes");
    }
    return "no answer beginning with " + start;
  };

  ASSERT_EQ(target.line(), "ready\n");
  EXPECT_EQ(request({"-D", "--enable"}).out, target.expand(success("enable")));
  // Allocations made before recording is on are not seen.
  ASSERT_EQ(answer("enabled:"), "enabled: backtraces of up to 32 frames, tables of 10752 KiB");
  kill(std::stoi(target.pid()), SIGUSR1);
  ASSERT_EQ(target.line(), "allocated\n");
  Result r = request({"-d"});
  EXPECT_EQ(std::tie(r.err, r.status), std::tuple("", 0));
  EXPECT_EQ(target_part(r.out),
            "155000 bytes in 8 allocations from 2 backtraces\n"
            "120000 bytes in 3 allocations\n"
            "  #00 site_a\n"
            "  #01 main\n"
            "35000 bytes in 5 allocations\n"
            "  #00 site_b\n"
            "  #01 main\n"
            "END of malloc debug dump: the recorder holds 8 allocations and 3 backtraces in "
            "10752 KiB; 0 allocations not recorded\n");
  const struct { std::vector<std::string> options; std::string name, text; } answers[] = {
      {{"--purgeall", "-s"}, "alloc-stats", "<malloc version=\"1\">"},
      {{"-p"}, "alloc-purge", "purge: malloc_trim returned N bytes to the system"},
      {{"-P"}, "alloc-purge_all", "purge-all: malloc_trim returned N bytes to the system"},
      {{"-P", "-p", "-D"}, "disable", "disabled: 10752 KiB of tables released"},
  };
  for (const auto& [options, name, text] : answers) {
    r = request(options);
    EXPECT_EQ(std::tie(r.out, r.status), std::tuple(target.expand(success(name)), 0));
    EXPECT_EQ(answer(text.substr(0, text.find(' '))), text);
  }
}

}  // namespace
}  // namespace kestrel_e2e
