// SPDX-License-Identifier: Apache-2.0
// mem-stress end to end: the progress bar block by block, the size checks, and the loop mode,
// whose memory must really be resident while it waits.
#include <stdio.h>

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
      {{"mem-stress", "3"}, three, "", 0},
      {{"mem-stress", "-r", "3"}, three, "", 0},
      // A plain size wins over --native.
      {{"mem-stress", "-n", "3", "1"}, bar(70, 100) + "\nfillin native 1 Mib.\n", "", 0},
      {{"mem-stress"}, "", usage, 129},
      {{"mem-stress", "3x"}, "", "fatal: native expects a numerical value\n", 129},
      {{"mem-stress", "-n", "-2"}, "", "fatal: sz should not be a nagative value\n", 129},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    Result r = run_kestrel(c.args);
    EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tie(c.out, c.err, c.status));
  }
}

// `mem-stress --loop` holds its memory while it waits, and a signal then ends it with status 0.
// For a run without memory and one with 8 MiB the shell prints kestrel's RssAnon in kB once it
// waits, then its exit status.
TEST(MemStress, LoopHoldsTheFilledMemoryUntilSignalledThenReturnsZero) {
  const TempDir dir;
  const Result r = run_program({"/bin/sh", "-c",
                                "for mib in 0 8; do\n"
                                "  \"$0\" mem-stress --loop $mib >\"$1/out\" &\n"
                                "  until grep -q 'endless loop' \"$1/out\"; do sleep 0.1; done\n"
                                "  awk '$1 == \"RssAnon:\" { print $2 }' /proc/$!/status\n"
                                "  kill $!; wait $!; echo $?\n"
                                "done",
                                kestrel_binary(), dir.path()},
                               {.simulator = false});
  long empty = -1, filled = -1;
  int status0 = -1, status8 = -1;
  ASSERT_EQ(sscanf(r.out.c_str(), "%ld %d %ld %d", &empty, &status0, &filled, &status8), 4)
      << r.out << r.err;
  EXPECT_EQ(std::tuple(status0, status8), std::tuple(0, 0));
  EXPECT_GE(filled - empty, 8 * 1024L) << "RssAnon " << empty << " kB, then " << filled << " kB";
}

}  // namespace
}  // namespace kestrel_e2e
