// `kestrel meminfo` under the driver simulator: the column groups, the choice between one pid,
// one uid and the whole system, cutting lines to the terminal, the command-line column, the
// benchmark line and every fatal message. Outputs are compared whole.
#include <ostream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

namespace {

using kestrel_e2e::Result;
using kestrel_e2e::RunOptions;
using kestrel_e2e::run_kestrel;

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

const std::string kAllHeader =
    "32   uid   pid  ppid   oom   fds       vss    anon    file   shmem    swap     pss   JHeap   "
    "NHeap dma-buf  ashmem     gpu comm\n";
const std::string kAllFirst =
    " N  1000 4200001     1  -900   412   6000000  120000   80000    4000    2000  160000   20000   "
    "24000     800     400    1200 system_server\n";
const std::string kAllSecond =
    " Y 10057 4200002 4200001   905    88 17179869180   48000   32000     160       0   60000   "
    "10000   12000     256       0    4096 com.example.app\n";

const std::string kUsage =
    "usage: kestrel meminfo [options] [--] pid\n"
    "    -p,--pid              pid of process. dump all processes if not given\n"
    "    -u,--uid              dump processes of given uid\n"
    "    -c,--common           32, uid, pid, ppid, oom, vss, anon, file, shemm, comm\n"
    "    -v,--vma              javaheap, nativeheap\n"
    "    -f,--fd               dmabuf, ashemm\n"
    "    -m,--mtrack           gpu\n"
    "    -e,--extra            cmdline, require root permission\n"
    "    -b,--benchmark        benchmark of fetch data\n"
    "\n";

struct MeminfoCase {
  const char* name;
  std::string scenario;
  std::vector<std::string> args;
  std::string out;
  std::string err;
  int status;
};

void PrintTo(const MeminfoCase& c, std::ostream* os) { *os << c.name; }

class Meminfo : public testing::TestWithParam<MeminfoCase> {};

TEST_P(Meminfo, PrintsExactly) {
  const MeminfoCase& c = GetParam();
  std::vector<std::string> args = {"meminfo"};
  args.insert(args.end(), c.args.begin(), c.args.end());
  RunOptions opts;
  opts.scenario = c.scenario;
  Result r = run_kestrel(args, opts);
  ASSERT_FALSE(r.timed_out);
  EXPECT_EQ(r.out, c.out);
  EXPECT_EQ(r.err, c.err);
  EXPECT_EQ(r.status, c.status);
}

auto case_name = [](const testing::TestParamInfo<MeminfoCase>& tp) {
  return std::string(tp.param.name);
};

// Each group of columns alone and together, in their fixed order; output to a pipe is never cut.
const MeminfoCase kColumnCases[] = {
    {"CommonGroup", kTwoProcs, {"-c", "-p", "4200001"}, kCommonHeader + kCommonFirst, "", 0},
    {"FdGroupHasNoComm", kTwoProcs, {"-f", "-p", "4200001"},
     "  fds dma-buf  ashmem \n"
     "  412     800     400 \n",
     "", 0},
    {"VmaGroupKeepsDriverFiguresWithoutSmaps", kTwoProcs, {"-v", "-p", "4200001"},
     "    pss   JHeap   NHeap \n"
     " 160000   20000   24000 \n",
     "", 0},
    {"MtrackGroup", kTwoProcs, {"-m", "-p", "4200001"},
     "    gpu \n"
     "   1200 \n",
     "", 0},
    {"GroupsCombineGpuBeforeComm", kTwoProcs, {"-c", "-m", "-p", "4200002"},
     "32   uid   pid  ppid   oom       vss    anon    file   shmem    swap     gpu comm\n"
     " Y 10057 4200002 4200001   905 17179869180   48000   32000     160       0    4096 "
     "com.example.app\n",
     "", 0},
    {"NoOptionsShowsEverythingUncut", kTwoProcs, {}, kAllHeader + kAllFirst + kAllSecond, "", 0},
    {"ExtraReplacesCommWithCmdline", kTwoProcs, {"-e", "-p", "4200001"},
     "32   uid   pid  ppid   oom   fds       vss    anon    file   shmem    swap     pss   JHeap   "
     "NHeap dma-buf  ashmem     gpu cmdline\n"
     " N  1000 4200001     1  -900   412   6000000  120000   80000    4000    2000  160000   20000   "
     "24000     800     400    1200 N/A\n",
     "", 0},
    {"ExtraAddsCmdlineWithoutCommBit", kTwoProcs, {"-e", "-m", "-p", "4200001"},
     "    gpu cmdline\n"
     "   1200 N/A\n",
     "", 0},
};
INSTANTIATE_TEST_SUITE_P(Columns, Meminfo, testing::ValuesIn(kColumnCases), case_name);

// A positional pid wins over -p and -u, -p over -u; -p 0 means no pid.
const MeminfoCase kModeCases[] = {
    {"PidWinsOverUid", kTwoProcs, {"-c", "-u", "10057", "-p", "4200001"},
     kCommonHeader + kCommonFirst, "", 0},
    {"PositionalWinsOverUid", kTwoProcs, {"-c", "-u", "1000", "4200002"},
     kCommonHeader + kCommonSecond, "", 0},
    {"PositionalWinsOverPid", kTwoProcs, {"-c", "-p", "4200001", "4200002"},
     kCommonHeader + kCommonSecond, "", 0},
    {"UidShowsOnlyItsProcesses", kTwoProcs, {"-c", "-u", "10057"},
     kCommonHeader + kCommonSecond, "", 0},
    {"PidZeroIsTheWholeSystem", kTwoProcs, {"-c", "-p", "0"},
     kCommonHeader + kCommonFirst + kCommonSecond, "", 0},
    {"InterruptedRequestIsReissued", "eintr 0xFB02\n" + kTwoProcs, {"-c"},
     kCommonHeader + kCommonFirst + kCommonSecond, "", 0},
};
INSTANTIATE_TEST_SUITE_P(Modes, Meminfo, testing::ValuesIn(kModeCases), case_name);

const MeminfoCase kFailureCases[] = {
    {"TwoPositionalPidsShowUsage", kTwoProcs, {"4200001", "4200002"}, "", kUsage, 129},
    {"PositionalPidMustBeNumber", kTwoProcs, {"12x"}, "",
     "fatal: pid expects a numerical value\n", 129},
    {"SystemWithNoProcessesReadsNothing", "version 65536\n", {"-c"}, "", "fatal: meminfo: read nothing.\n", 129},
    {"SystemRequestFails", "fail 0xFB02 EIO\n" + kTwoProcs, {"-c"}, "",
     "fatal: read mem stat failed.\n", 129},
    {"UnknownPidFails", kTwoProcs, {"-c", "-p", "77"}, "", "fatal: read mem stat failed.\n", 129},
    {"NoDevice", "device absent\n", {"-c"}, "", "fatal: cannot get kestrel version.\n", 129},
};
INSTANTIATE_TEST_SUITE_P(Failures, Meminfo, testing::ValuesIn(kFailureCases), case_name);

// On a terminal each line longer than its width keeps width - 1 characters and a "+"; a line
// exactly as wide is printed whole.
struct WidthCase {
  const char* name;
  unsigned cols;
  std::vector<std::string> args;
  std::string out;
};

void PrintTo(const WidthCase& c, std::ostream* os) { *os << c.name; }

const WidthCase kWidthCases[] = {
    {"EightyColumnsCutEveryLine", 80, {"meminfo"},
     "32   uid   pid  ppid   oom   fds       vss    anon    file   shmem    swap     +\n"
     " N  1000 4200001     1  -900   412   6000000  120000   80000    4000    2000  1+\n"
     " Y 10057 4200002 4200001   905    88 17179869180   48000   32000     160       +\n"},
    {"LineAsWideAsTerminalIsWhole", 73, {"meminfo", "-c", "-p", "4200001"},
     kCommonHeader +
         " N  1000 4200001     1  -900   6000000  120000   80000    4000    2000 s+\n"},
};

class MeminfoWidth : public testing::TestWithParam<WidthCase> {};

TEST_P(MeminfoWidth, CutsLinesToTerminal) {
  const WidthCase& c = GetParam();
  RunOptions opts;
  opts.scenario = kTwoProcs;
  opts.pty = true;
  opts.pty_cols = c.cols;
  Result r = run_kestrel(c.args, opts);
  ASSERT_FALSE(r.timed_out);
  EXPECT_EQ(r.out, c.out);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
}

INSTANTIATE_TEST_SUITE_P(Terminal, MeminfoWidth, testing::ValuesIn(kWidthCases),
                         [](const testing::TestParamInfo<WidthCase>& tp) {
                           return std::string(tp.param.name);
                         });

// The timing line follows the table after an empty line; the times vary, the struct size is the
// request buffer: one proc_pid_ms, or a table of 400 records.
struct BenchmarkCase {
  const char* name;
  std::vector<std::string> args;
  std::string table;
  const char* struct_bytes;
};

void PrintTo(const BenchmarkCase& c, std::ostream* os) { *os << c.name; }

const BenchmarkCase kBenchmarkCases[] = {
    {"OnePid", {"meminfo", "-b", "-m", "-p", "4200001"}, "    gpu \n   1200 \n", "92"},
    {"System", {"meminfo", "-b", "-m"}, "    gpu \n   1200 \n   4096 \n", "33600"},
};

class MeminfoBenchmark : public testing::TestWithParam<BenchmarkCase> {};

TEST_P(MeminfoBenchmark, PrintsTimingLine) {
  const BenchmarkCase& c = GetParam();
  RunOptions opts;
  opts.scenario = kTwoProcs;
  Result r = run_kestrel(c.args, opts);
  ASSERT_FALSE(r.timed_out);
  ASSERT_EQ(r.out.substr(0, c.table.size()), c.table);
  const std::regex line("\nbenchmark: fetch data [0-9]+\\.[0-9]{3} ms, total [0-9]+\\.[0-9]{3} ms, "
                        "struct " + std::string(c.struct_bytes) + " bytes\n");
  EXPECT_TRUE(std::regex_match(r.out.substr(c.table.size()), line)) << r.out;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
}

INSTANTIATE_TEST_SUITE_P(Timing, MeminfoBenchmark, testing::ValuesIn(kBenchmarkCases),
                         [](const testing::TestParamInfo<BenchmarkCase>& tp) {
                           return std::string(tp.param.name);
                         });

}  // namespace
