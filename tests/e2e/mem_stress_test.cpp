// SPDX-License-Identifier: Apache-2.0
// mem-stress end to end: the progress bar block by block, the size checks, and the loop mode,
// whose memory must really be resident while it waits.
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

// One redraw: `full` "=", the ">" unless full, blanks to 70 columns, then the percentage.
std::string bar(int full, int percent) {
  std::string line = "[" + std::string(full, '=');
  if (full < 70) line += ">" + std::string(69 - full, ' ');
  return line + "] " + std::to_string(percent) + " %\r";
}

TEST(MemStress, FillsOneMiBPerBarRedrawAndRefusesBadSizes) {
  const std::string usage =
      "usage: kestrel mem-stress [options] mib\n"
      "    -n,--native           fillin native size mib\n"
      "    -r,--rand             fillin rand num\n"
      "    -l,--loop             endless loop mode\n"
      "\n";
  const std::string three = bar(23, 33) + bar(46, 66) + bar(70, 100) + "\nfillin native 3 Mib.\n";
  const struct { std::vector<std::string> args; std::string out, err; int status; } cases[] = {
      {{"mem-stress", "0"}, "\nfillin native 0 Mib.\n", "", 0},
      {{"mem-stress", "1"}, bar(70, 100) + "\nfillin native 1 Mib.\n", "", 0},
      {{"mem-stress", "3"}, three, "", 0},
      {{"mem-stress", "-r", "3"}, three, "", 0},
      {{"mem-stress", "-n", "3"}, three, "", 0},
      {{"mem-stress", "-n", "3", "5"},  // the plain size wins over --native
       bar(14, 20) + bar(28, 40) + bar(42, 60) + bar(56, 80) + bar(70, 100) +
           "\nfillin native 5 Mib.\n", "", 0},
      {{"mem-stress"}, "", usage, 129},
      {{"mem-stress", "1", "2"}, "", usage, 129},
      {{"mem-stress", "3x"}, "", "fatal: native expects a numerical value\n", 129},
      {{"mem-stress", "-2"}, "", "fatal: sz should not be a nagative value\n", 129},
      {{"mem-stress", "-n", "-2"}, "", "fatal: sz should not be a nagative value\n", 129},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    Result r = run_kestrel(c.args);
    EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tie(c.out, c.err, c.status));
  }
}

// RssAnon in kB of `kestrel mem-stress --loop mib` once it waits (the shell prints its pid and
// becomes kestrel); a signal then must end it with status 0. A run that never waits fails.
long loop_rss_anon_kib(int mib) {
  FILE* out = popen(("echo $$; exec '" + kestrel_binary() + "' mem-stress --loop " +
                     std::to_string(mib)).c_str(), "r");
  if (out == nullptr) return -1;
  pollfd pfd = {fileno(out), POLLIN, 0};
  std::string seen;
  char buf[4096];
  for (ssize_t n; !seen.ends_with("endless loop...\n") && poll(&pfd, 1, 60000) > 0 &&
                  (n = read(pfd.fd, buf, sizeof(buf))) > 0;) {
    seen.append(buf, static_cast<size_t>(n));
  }
  const pid_t pid = atoi(seen.c_str());
  long kib = -1;
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string key; seen.ends_with("endless loop...\n") && kib < 0 && status >> key;) {
    if (key == "RssAnon:") status >> kib;
  }
  if (pid > 0) kill(pid, SIGTERM);
  EXPECT_EQ(pclose(out), 0) << "output: " << seen;
  return kib;
}

TEST(MemStress, LoopHoldsTheFilledMemoryUntilSignalledThenReturnsZero) {
  const long empty = loop_rss_anon_kib(0), filled = loop_rss_anon_kib(8);
  ASSERT_GT(empty, 0);
  EXPECT_GE(filled - empty, 8 * 1024L) << "RssAnon " << empty << " kB, then " << filled << " kB";
}

}  // namespace
}  // namespace kestrel_e2e
