// mem-stress end to end: the progress bar block by block, the size checks, and the loop mode,
// whose memory must really be resident while it waits.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

namespace kestrel_e2e {
namespace {

constexpr char kUsage[] =
    "usage: kestrel mem-stress [options] mib\n"
    "    -n,--native           fillin native size mib\n"
    "    -r,--rand             fillin rand num\n"
    "    -l,--loop             endless loop mode\n"
    "\n";

// One redraw of the bar: `full` "=" characters, the ">" (absent once the bar is full), blanks
// to 70 columns, then the percentage.
std::string bar(int full, int percent) {
  std::string line = "[" + std::string(full, '=');
  if (full < 70) line += ">" + std::string(69 - full, ' ');
  return line + "] " + std::to_string(percent) + " %\r";
}

TEST(MemStress, FillRedrawsTheBarOncePerMiB) {
  const std::string three = bar(23, 33) + bar(46, 66) + bar(70, 100) + "\nfillin native 3 Mib.\n";
  const std::string five = bar(14, 20) + bar(28, 40) + bar(42, 60) + bar(56, 80) + bar(70, 100) +
                           "\nfillin native 5 Mib.\n";
  struct {
    std::vector<std::string> args;
    std::string out;
  } const cases[] = {
      {{"0"}, "\nfillin native 0 Mib.\n"},
      {{"1"}, "[" + std::string(70, '=') + "] 100 %\r\nfillin native 1 Mib.\n"},
      {{"3"}, three},
      {{"-r", "3"}, three},
      {{"-n", "3"}, three},
      {{"-n", "3", "5"}, five},  // the plain size wins over --native
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::vector<std::string> args = {"mem-stress"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Result r = run_kestrel(args);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
  }
}

TEST(MemStress, BadSizesAreRefused) {
  struct {
    std::vector<std::string> args;
    std::string err;
  } const cases[] = {
      {{}, kUsage},
      {{"-r"}, kUsage},
      {{"1", "2"}, kUsage},
      {{"3x"}, "fatal: native expects a numerical value\n"},
      {{"-2"}, "fatal: sz should not be a nagative value\n"},
      {{"-n", "-2"}, "fatal: sz should not be a nagative value\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::vector<std::string> args = {"mem-stress"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Result r = run_kestrel(args);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, c.err);
    EXPECT_EQ(r.status, 129);
  }
}

// Resident anonymous memory of a running process in kB, from its status file; -1 if not found.
long resident_kib(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string key;
  long value = -1;
  while (status >> key) {
    if (key == "RssAnon:") {
      status >> value;
      break;
    }
  }
  return value;
}

// Resident anonymous memory (where the blocks live) of `kestrel mem-stress --loop mib` once it
// waits, in kB; the process is then signalled and must end with status 0. The shell prints its
// own pid and becomes kestrel, so that pid is kestrel's.
long loop_resident_kib(int mib) {
  const std::string command = "echo $$; exec '" + kestrel_binary() + "' mem-stress --loop " +
                              std::to_string(mib);
  FILE* out = popen(command.c_str(), "r");
  if (out == nullptr) {
    ADD_FAILURE() << "popen: " << strerror(errno);
    return -1;
  }
  // A run that never reaches its wait (or never flushes the line) fails here instead of hanging.
  constexpr int kHangGuardMs = 60000;
  const std::string waiting_line = "endless loop...\n";
  std::string seen;
  bool waiting = false;
  while (!waiting) {
    pollfd ready = {fileno(out), POLLIN, 0};
    if (poll(&ready, 1, kHangGuardMs) <= 0) break;
    char buf[4096];
    ssize_t n = read(fileno(out), buf, sizeof(buf));
    if (n <= 0) break;
    seen.append(buf, static_cast<size_t>(n));
    waiting = seen.ends_with(waiting_line);
  }
  pid_t pid = atoi(seen.c_str());
  long kib = -1;
  if (waiting) kib = resident_kib(pid);
  if (pid > 0) kill(pid, SIGTERM);
  int status = pclose(out);
  EXPECT_TRUE(waiting) << "output so far: " << seen;
  // The signal ends the wait and the command returns 0.
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
  return kib;
}

TEST(MemStress, LoopHoldsTheFilledMemoryUntilSignalledThenReturnsZero) {
  constexpr int kMiB = 8;
  long base = loop_resident_kib(0);
  long filled = loop_resident_kib(kMiB);
  ASSERT_GT(base, 0);
  EXPECT_GE(filled - base, kMiB * 1024L) << "resident " << base << " kB empty, " << filled
                                         << " kB with " << kMiB << " MiB filled";
}

}  // namespace
}  // namespace kestrel_e2e
