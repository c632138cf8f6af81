// `kestrel compact` on real processes: a child's resident memory leaves after --pid, the
// mappings reach the kernel 1024 ranges per process_madvise call, and on a kernel without
// process_madvise (a seccomp filter here) the kind's label lands in the reclaim file of every
// process from the first ENOSYS on.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

namespace kestrel_e2e {
namespace {

const std::string kHelperDir = std::string(KESTREL_BUILD_DIR) + "/tests/compact";

std::string helper(const char* name) { return kHelperDir + "/" + name; }

std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

// The elapsed time is the one part of the output that changes from run to run.
std::string without_time(const std::string& out) {
  static const std::regex kDone("done: total [0-9]+\\.[0-9]{3} ms\n");
  return std::regex_replace(out, kDone, "done: total <t> ms\n");
}

// A compact_child that holds its memory until this object goes.
class Child {
 public:
  explicit Child(std::vector<std::string> args) {
    args.insert(args.begin(), helper("compact_child"));
    cmdline_ = "compact_child";
    for (size_t i = 1; i < args.size(); i++) cmdline_ += " " + args[i];
    int in[2], out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(in[0], STDIN_FILENO);
      dup2(out[1], STDOUT_FILENO);
      std::vector<char*> argv;
      for (std::string& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(in[0]);
    close(out[1]);
    hold_ = in[1];
    char ready[6] = {};
    if (pid_ < 0 || read(out[0], ready, sizeof(ready)) != 6 || std::string(ready, 6) != "ready\n") {
      pid_ = -1;
    }
    close(out[0]);
  }
  ~Child() {
    if (hold_ >= 0) close(hold_);  // the child ends at the end of its input
    if (pid_ > 0) waitpid(pid_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  const std::string& cmdline() const { return cmdline_; }  // as pid_cmdline shows it

  // A "Field:   N kB" figure of /proc/<pid>/status, in kB.
  long status_kb(const std::string& field) const {
    std::istringstream status(read_text("/proc/" + std::to_string(pid_) + "/status"));
    std::string line;
    while (std::getline(status, line)) {
      if (line.compare(0, field.size() + 1, field + ":") == 0) return atol(line.c_str() + field.size() + 1);
    }
    return -1;
  }

 private:
  pid_t pid_ = -1;
  int hold_ = -1;
  std::string cmdline_;
};

// Empty when this kernel lets root page out another process's memory; else why not.
std::string page_out_unavailable() {
  if (geteuid() != 0) return "process_madvise on another process needs CAP_SYS_NICE (run as root)";
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, getpid(), 0));
  if (pidfd < 0) return std::string("kernel lacks pidfd_open: ") + strerror(errno);
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  void* p = mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  iovec range = {p, page};
  const long r = syscall(SYS_process_madvise, pidfd, &range, 1, MADV_PAGEOUT, 0);
  const int err = errno;
  munmap(p, page);
  close(pidfd);
  if (r < 0) return std::string("kernel lacks process_madvise(MADV_PAGEOUT): ") + strerror(err);
  return "";
}

bool have_swap() {
  std::istringstream swaps(read_text("/proc/swaps"));
  std::string line;
  int lines = 0;
  while (std::getline(swaps, line)) lines++;
  return lines > 1;  // a header, then one line per swap area
}

std::string compacted(const Child& child) {
  return "compact pid:" + std::to_string(child.pid()) + " " + child.cmdline() +
         "\ndone: total <t> ms\n";
}

RunOptions no_simulator() {
  RunOptions opts;
  opts.simulator = false;
  return opts;
}

TEST(CompactCommand, HelpAndVanishedProcess) {
  Result help = run_kestrel({"compact", "-h"}, no_simulator());
  EXPECT_EQ(help.out, "");
  EXPECT_EQ(help.err,
            "usage: kestrel proc_madvise [options]\n"
            "    -p,--pid              pid of process. compact all processes (uid > 10000) if not given\n"
            "    --file                compact file\n"
            "    --anon                compact anon\n"
            "\n");
  EXPECT_EQ(help.status, 129);

  Result gone = run_kestrel({"compact", "--pid", "99999999"}, no_simulator());
  EXPECT_EQ(without_time(gone.out), "read pid:99999999 failed\ndone: total <t> ms\n");
  EXPECT_EQ(gone.err, "");
  EXPECT_EQ(gone.status, 0);
}

struct ResidentCase {
  const char* name;
  std::vector<std::string> options;
  const char* field;  // the status figure that must fall
  bool needs_swap;    // anonymous pages can only leave for swap; clean file pages just go
};

void PrintTo(const ResidentCase& c, std::ostream* os) { *os << c.name; }

class CompactResident : public ::testing::TestWithParam<ResidentCase> {};

TEST_P(CompactResident, PidDropsTheChildsResidentMemory) {
  const ResidentCase& c = GetParam();
  const std::string why = page_out_unavailable();
  if (!why.empty()) GTEST_SKIP() << why;
  if (c.needs_swap && !have_swap()) GTEST_SKIP() << "no swap: anonymous pages cannot be paged out";

  constexpr long kMiB = 16;
  Child child({"--anon-mib", std::to_string(kMiB), "--file-mib", std::to_string(kMiB), "--dir",
               kHelperDir});
  ASSERT_GT(child.pid(), 0);
  const long before = child.status_kb(c.field);
  ASSERT_GE(before, kMiB * 1024);

  std::vector<std::string> args = {"compact", "--pid", std::to_string(child.pid())};
  args.insert(args.end(), c.options.begin(), c.options.end());
  Result r = run_kestrel(args, no_simulator());
  EXPECT_EQ(without_time(r.out), compacted(child));
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);

  const long after = child.status_kb(c.field);
  EXPECT_LE(after, before - (kMiB - 4) * 1024) << c.field << " before " << before << " kB";
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, CompactResident,
    ::testing::Values(ResidentCase{"all", {}, "RssFile", false},
                      ResidentCase{"file", {"--file"}, "RssFile", false},
                      ResidentCase{"anon", {"--anon"}, "RssAnon", true}),
    [](const auto& param_info) { return std::string(param_info.param.name); });

// Counts the file-backed mappings of a process as the file kind selects them.
size_t file_mappings(pid_t pid) {
  std::istringstream maps(read_text("/proc/" + std::to_string(pid) + "/maps"));
  std::string line, range, perms, offset, dev;
  unsigned long long inode = 0;
  size_t n = 0;
  while (std::getline(maps, line)) {
    std::istringstream fields(line);
    fields >> range >> perms >> offset >> dev >> inode;
    if (inode != 0) n++;
  }
  return n;
}

std::string find_strace() {
  for (const char* path : {"/usr/bin/strace", "/bin/strace", "/usr/local/bin/strace"}) {
    if (access(path, X_OK) == 0) return path;
  }
  return "";
}

TEST(CompactBatches, RangesReachTheKernel1024PerCall) {
  const std::string why = page_out_unavailable();
  if (!why.empty()) GTEST_SKIP() << why;
  const std::string strace = find_strace();
  if (strace.empty()) GTEST_SKIP() << "strace is not installed";

  Child child({"--file-pages", "2500", "--dir", kHelperDir});
  ASSERT_GT(child.pid(), 0);
  const size_t ranges = file_mappings(child.pid());
  ASSERT_GT(ranges, 2048u);

  TempDir tmp;
  const std::string trace = tmp.file("trace");
  RunOptions opts = no_simulator();
  // LeakSanitizer cannot stop the world under a tracer.
  opts.env = {"ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0"};
  Result r = run_program({strace, "-f", "-qq", "-o", trace, "-e", "trace=process_madvise",
                          kestrel_binary(), "compact", "--pid", std::to_string(child.pid()),
                          "--file"},
                         opts);
  if (r.status != 0 && r.out.empty()) GTEST_SKIP() << "strace cannot trace here: " << r.err;
  EXPECT_EQ(without_time(r.out), compacted(child));
  EXPECT_EQ(r.status, 0);

  // "process_madvise(3, [...], 1024, MADV_PAGEOUT, 0) = 4194304": the range count of each
  // call, and its answer.
  static const std::regex kCall(R"(process_madvise\(\d+, \[.*\], (\d+), MADV_PAGEOUT, 0\) = (-?\d+))");
  std::vector<size_t> counts;
  std::istringstream lines(read_text(trace));
  std::string line;
  while (std::getline(lines, line)) {
    std::smatch m;
    if (!std::regex_search(line, m, kCall)) continue;
    counts.push_back(std::stoul(m[1]));
    EXPECT_GT(std::stol(m[2]), 0) << line;
  }
  const size_t calls = (ranges + 1023) / 1024;
  std::vector<size_t> want(calls, 1024);
  want.back() = ranges - (calls - 1) * 1024;
  EXPECT_EQ(counts, want);
}

// Sandboxed runs with a fixture /proc: the entries are plain files, so the reclaim file that a
// kernel without process_madvise would offer can be read back.
class CompactFallback : public ::testing::Test {
 protected:
  void SetUp() override { KESTREL_REQUIRE_SANDBOX(); }

  void add_process(pid_t pid, uid_t uid, const std::string& cmdline, const std::string& maps) {
    const std::string dir = "/proc/" + std::to_string(pid);
    sandbox_.write_file(dir + "/status", "Name:\tfixture\n");
    ASSERT_EQ(chown(sandbox_.host_path(dir + "/status").c_str(), uid, 0), 0);
    sandbox_.write_file(dir + "/cmdline", cmdline);
    sandbox_.write_file(dir + "/maps", maps);
    sandbox_.write_file(dir + "/reclaim", "");
  }
  std::string reclaim(pid_t pid) const {
    return sandbox_.read_file("/proc/" + std::to_string(pid) + "/reclaim");
  }

  Result compact(const std::vector<std::string>& launcher_options,
                 const std::vector<std::string>& args) {
    std::vector<std::string> argv = {helper("compact_nosys")};
    argv.insert(argv.end(), launcher_options.begin(), launcher_options.end());
    argv.insert(argv.end(), {"--", kestrel_binary(), "compact"});
    argv.insert(argv.end(), args.begin(), args.end());
    Result r = sandbox_.run_program(argv, no_simulator());
    if (r.status == 77) ADD_FAILURE() << "the launcher could not set up: " << r.err;
    return r;
  }

  Sandbox sandbox_;
};

TEST_F(CompactFallback, KindLabelLandsInTheReclaimFile) {
  Child child({});
  ASSERT_GT(child.pid(), 0);
  // The real maps, so the first process_madvise has ranges of every kind to fail on.
  const std::string maps = read_text("/proc/" + std::to_string(child.pid()) + "/maps");
  const std::string cmdline = read_text("/proc/" + std::to_string(child.pid()) + "/cmdline");

  const struct {
    std::vector<std::string> options;
    const char* label;
  } cases[] = {
      {{}, "all"},
      {{"--file"}, "file"},
      {{"--anon"}, "anon"},
      {{"--file", "--anon"}, "all"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    add_process(child.pid(), 0, cmdline, maps);
    std::vector<std::string> args = {"--pid", std::to_string(child.pid())};
    args.insert(args.end(), c.options.begin(), c.options.end());
    Result r = compact({}, args);
    EXPECT_EQ(without_time(r.out), compacted(child));
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(reclaim(child.pid()), c.label);
  }
}

// On a kernel with neither call, the first process fails to open its pidfd with ENOSYS; it and
// every later eligible process get the label, and only the first is announced. Owners from uid
// 10000 on, and the tool itself, are left alone.
TEST_F(CompactFallback, WalkSwitchesToReclaimFilesForGood) {
  const std::string maps = "10000000-10001000 r--p 00000000 fe:00 7 /system/lib64/libc.so\n";
  add_process(100, 0, std::string("/system/bin/init\0second_stage\0", 30), maps);
  add_process(200, 9999, std::string("surfaceflinger\0", 15), maps);
  add_process(300, 10000, std::string("com.example.app\0", 16), maps);

  Result r = compact({"--pidfd-open", "--own-entry"}, {"--file"});

  // The first of 100 and 200 in directory order is the one that meets ENOSYS.
  std::string first;
  if (DIR* d = opendir(sandbox_.host_path("/proc").c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (first.empty() && (name == "100" || name == "200")) first = name;
    }
    closedir(d);
  }
  const std::string announced = first == "100" ? "compact pid:100 init second_stage\n"
                                               : "compact pid:200 surfaceflinger\n";
  EXPECT_EQ(without_time(r.out), announced + "done: total <t> ms\n");
  EXPECT_EQ(r.err, "error: open pid failed\n\n");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(reclaim(100), "file");
  EXPECT_EQ(reclaim(200), "file");
  EXPECT_EQ(reclaim(300), "");

  // The launcher's entry for the tool's own pid is the one that is neither of the fixtures.
  int own_entries = 0;
  if (DIR* d = opendir(sandbox_.host_path("/proc").c_str())) {
    while (dirent* e = readdir(d)) {
      const int pid = atoi(e->d_name);
      if (pid <= 0 || pid == 100 || pid == 200 || pid == 300) continue;
      own_entries++;
      EXPECT_EQ(reclaim(pid), "") << "the tool compacted itself";
    }
    closedir(d);
  }
  EXPECT_EQ(own_entries, 1);
}

}  // namespace
}  // namespace kestrel_e2e
