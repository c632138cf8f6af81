// SPDX-License-Identifier: Apache-2.0
// `kestrel meminfo` under the driver simulator: the column groups, the choice between one pid,
// one uid and the whole system, cutting lines to the terminal, the benchmark line and the fatal
// messages. Outputs are compared whole.
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

// Pids above the kernel's limit of 4194304 never exist, so their smaps walk and command line
// fail on any machine and the driver's figures stand alone. The second vss (2^32 - 1 pages) only
// fits in kB as a 64-bit number.
const std::string kTwoProcs =
    "proc pid=4200001 uid=1000 ppid=1 comm=system_server oom=-900 compat32=0 fds=412 vss=1500000 "
    "anon=30000 file=20000 shmem=1000 swap=500 pss=40000 java_heap=5000 native_heap=6000 "
    "ashmem=100 dmabuf=200 gpu=300\n"
    "proc pid=4200002 uid=10057 ppid=4200001 comm=com.example.app oom=905 compat32=1 fds=88 "
    "vss=4294967295 anon=12000 file=8000 shmem=40 swap=0 pss=15000 java_heap=2500 "
    "native_heap=3000 ashmem=0 dmabuf=64 gpu=1024\n";

const std::string kCommonHeader =
    "32   uid   pid  ppid   oom       vss    anon    file   shmem    swap comm\n";
const std::string kCommonFirst =
    " N  1000 4200001     1  -900   6000000  120000   80000    4000    2000 system_server\n";
const std::string kCommonSecond =
    " Y 10057 4200002 4200001   905 17179869180   48000   32000     160       0 com.example.app\n";

struct Case {
  std::vector<std::string> args;
  std::string out, err;
  int status = 0;
  std::string scenario = kTwoProcs;
  unsigned cols = 0;  // a pty this wide; 0: a pipe
};

// The times of the benchmark line vary from run to run: they are shown as "<t>".
void expect_runs(const std::vector<Case>& cases) {
  static const std::regex time("[0-9]+\\.[0-9]{3} ms");
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::vector<std::string> args = {"meminfo"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Result r = run_kestrel(args, {.scenario = c.scenario, .pty = c.cols > 0, .pty_cols = c.cols});
    r.out = std::regex_replace(r.out, time, "<t> ms");
    EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tie(c.out, c.err, c.status));
  }
}

// Each group alone or with others, in their fixed order; output to a pipe is never cut. On a
// terminal a line longer than its width keeps width - 1 characters and a "+"; a line exactly
// as wide is printed whole.
TEST(Meminfo, ColumnGroupsAndTerminalWidth) {
  expect_runs({
      {{"-v", "-p", "4200001"}, "    pss   JHeap   NHeap \n 160000   20000   24000 \n"},
      {{},
       "32   uid   pid  ppid   oom   fds       vss    anon    file   shmem    swap     pss   "
       "JHeap   NHeap dma-buf  ashmem     gpu comm\n"
       " N  1000 4200001     1  -900   412   6000000  120000   80000    4000    2000  160000   "
       "20000   24000     800     400    1200 system_server\n"
       " Y 10057 4200002 4200001   905    88 17179869180   48000   32000     160       0   "
       "60000   10000   12000     256       0    4096 com.example.app\n"},
      {.args = {"-c", "-p", "4200001"},
       .out = kCommonHeader +
              " N  1000 4200001     1  -900   6000000  120000   80000    4000    2000 s+\n",
       .cols = 73},
  });
}

// A positional pid wins over -p and -u, -p over -u. The timing line follows the table after an
// empty line; the struct size is the request buffer, here one proc_pid_ms.
TEST(Meminfo, PidUidAndSystemChoiceAndBenchmarkLine) {
  expect_runs({
      {{"-c", "-u", "10057", "-p", "4200001"}, kCommonHeader + kCommonFirst},
      {{"-c", "-p", "4200001", "4200002"}, kCommonHeader + kCommonSecond},
      {{"-c", "-u", "10057"}, kCommonHeader + kCommonSecond},
      {{"-c"}, kCommonHeader + kCommonFirst + kCommonSecond, "", 0, "eintr 0xFB02\n" + kTwoProcs},
      {{"-b", "-e", "-f", "-m", "-p", "4200001"},
       "  fds dma-buf  ashmem     gpu cmdline\n  412     800     400    1200 N/A\n\n"
       "benchmark: fetch data <t> ms, total <t> ms, struct 92 bytes\n"},
  });
}

TEST(Meminfo, FailuresAreFatal) {
  expect_runs({
      {{"12x"}, "", "fatal: pid expects a numerical value\n", 129},
      {{"-c"}, "", "fatal: meminfo: read nothing.\n", 129, "version 65536\n"},
      {{"-c"}, "", "fatal: read mem stat failed.\n", 129, "fail 0xFB02 EIO\n" + kTwoProcs},
      {{"-c", "-p", "77"}, "", "fatal: read mem stat failed.\n", 129},
      {{"-c"}, "", "fatal: cannot get kestrel version.\n", 129, "device absent\n"},
  });
}

}  // namespace
}  // namespace kestrel_e2e
