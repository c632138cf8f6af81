// SPDX-License-Identifier: Apache-2.0
// The end-to-end process runner: fork and exec of the program under test, its output collected
// through pipes (or a pseudo-terminal) until it ends or its time runs out. A sandboxed child
// enters, between fork and exec, a private mount namespace and a chroot of fixture files.
#include "tests/support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/sandbox.h"

extern char** environ;

namespace kestrel_e2e {

std::string kestrel_binary() { return KESTREL_BINARY; }
std::string simulator_library() { return KESTREL_SIM_LIBRARY; }
std::string simulator_wrapper() { return KESTREL_SIM_WRAPPER; }
std::string fd_report_library() { return KESTREL_FD_REPORT_LIBRARY; }
std::string fixtures_dir() { return KESTREL_FIXTURES; }

std::string read_text(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

namespace {

// The harness itself could not do its part (a full /tmp, no pipes left): no test result means
// anything after that.
[[noreturn]] void harness_fail(const std::string& what) {
  fprintf(stderr, "harness: %s: %s\n", what.c_str(), strerror(errno));
  abort();
}

// Reports a failed call of the child on its standard error and ends it with status 127.
[[noreturn]] void child_fail(const char* what) {
  char line[256];
  int n = snprintf(line, sizeof(line), "harness: %s: %s\n", what, strerror(errno));
  (void)!write(2, line, static_cast<size_t>(n));
  _exit(127);
}

void make_dirs(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::create_directories(path, error) && error) harness_fail(path);
}

std::string parent_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Writes `content` to `path`, making its folders first.
void write_text(const std::string& path, const std::string& content, mode_t mode) {
  make_dirs(parent_of(path));
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
      fchmod(fd, mode) != 0) {
    harness_fail(path);
  }
  close(fd);
}

// The sandbox's mounts live in its children's namespaces only: here its root is plain folders,
// and links in it are removed, never followed.
void remove_tree(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

std::string make_temp_dir(const char* prefix) {
  std::string templ = std::string("/tmp/") + prefix + "-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) harness_fail(templ);
  return templ;
}

// The child's environment: ours without what would change the output or the simulator, then
// TZ=UTC, the simulator with the scenario at `scenario_path` and the caller's entries.
std::vector<std::string> child_env(const RunOptions& opts, const std::string& scenario_path) {
  static const char* const kDropped[] = {"LD_PRELOAD", "KESTREL_SIM_SCENARIO", "TZ", "COLUMNS",
                                         "LINES", "ASAN_OPTIONS"};
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; e++) {
    std::string entry = *e;
    std::string name = entry.substr(0, entry.find('='));
    if (std::find(std::begin(kDropped), std::end(kDropped), name) == std::end(kDropped)) env.push_back(entry);
  }
  env.push_back("TZ=UTC");
  // A sanitized kestrel would refuse a preloaded library ahead of its runtime.
  std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
  asan += std::string(asan.empty() ? "" : ":") + "verify_asan_link_order=0";
  env.push_back("ASAN_OPTIONS=" + asan);
  if (opts.simulator) env.push_back("LD_PRELOAD=" + simulator_library());
  if (opts.simulator && !scenario_path.empty()) env.push_back("KESTREL_SIM_SCENARIO=" + scenario_path);
  for (const std::string& extra : opts.env) {
    std::string prefix = extra.substr(0, extra.find('=') + 1);
    std::erase_if(env, [&](const std::string& e) { return e.compare(0, prefix.size(), prefix) == 0; });
    env.push_back(extra);
  }
  return env;
}

// --- the sandbox, as the child enters it ---------------------------------------------------------

// One bind mount of the sandbox: `source` appears read-only at `target` (a host path). Nothing
// the tests run writes to the host's folders, nor to the real procfs bound among them.
struct Bind {
  std::string source;
  std::string target;
};

// LeakSanitizer, at the exit of a sanitized program, stops its threads and finds them in
// /proc/<pid>/task by number, not through /proc/self. So a fixture /proc gets the child's own
// entry, a link to the real one; walks of /proc leave the program itself out. Runs in the child,
// inside the sandbox. False when the fixture already has an entry of that number.
bool make_own_entry() {
  char entry[32], target[48];
  snprintf(entry, sizeof(entry), "/proc/%d", getpid());
  snprintf(target, sizeof(target), "/.realproc/%d", getpid());
  return symlink(target, entry) == 0;
}

// Removes the link make_own_entry made for `pid` under the sandbox root, and nothing a fixture
// put there.
void remove_own_entry(const std::string& root, pid_t pid) {
  const std::string entry = root + "/proc/" + std::to_string(pid);
  char got[64] = {};
  if (readlink(entry.c_str(), got, sizeof(got) - 1) > 0 && "/.realproc/" + std::to_string(pid) == got) {
    unlink(entry.c_str());
  }
}

// What a sandboxed child does between fork and exec (only system calls there).
struct SandboxPlan {
  std::string root;
  std::vector<Bind> binds;
  bool own_entry = false;  // the child gets its entry of the real procfs
  std::string asan_without_leaks;

  void enter(std::vector<char*>& env) {
    if (unshare(CLONE_NEWNS) < 0) child_fail("unshare");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) child_fail("mount private");
    for (const Bind& b : binds) {
      if (mount(b.source.c_str(), b.target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0) {
        child_fail(b.source.c_str());
      }
      // A read-only remount must keep the flags the original mount is locked with.
      struct statvfs st;
      unsigned long keep = 0;
      if (statvfs(b.source.c_str(), &st) == 0) {
        keep = st.f_flag & (ST_NOSUID | ST_NODEV | ST_NOEXEC | ST_NOATIME | ST_NODIRATIME | ST_RELATIME);
      }
      if (mount(nullptr, b.target.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | keep,
                nullptr) < 0) {
        child_fail(b.target.c_str());
      }
    }
    if (chroot(root.c_str()) < 0) child_fail("chroot");
    if (chdir("/") < 0) child_fail("chdir");
    // Where the child cannot have its own entry, it runs without leak detection instead.
    if (own_entry && make_own_entry()) return;
    for (char*& e : env) {
      if (e != nullptr && strncmp(e, "ASAN_OPTIONS=", 13) == 0) e = asan_without_leaks.data();
    }
  }
};

// --- running the child ---------------------------------------------------------------------------

int64_t now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

std::vector<char*> c_strings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// The parent's ends and the child's ends of its standard output and error.
struct Streams {
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
};

void open_streams(const RunOptions& opts, Streams* s) {
  if (pipe2(s->err, O_CLOEXEC) < 0 || (!opts.pty && pipe2(s->out, O_CLOEXEC) < 0)) {
    harness_fail("pipe");
  }
  if (!opts.pty) return;
  winsize ws = {};
  ws.ws_col = static_cast<unsigned short>(opts.pty_cols);
  ws.ws_row = 24;
  if (openpty(&s->out[0], &s->out[1], nullptr, nullptr, &ws) < 0) harness_fail("openpty");
  // Plain "\n" line ends, so the output compares as text.
  termios t;
  tcgetattr(s->out[1], &t);
  t.c_oflag &= ~(OPOST | ONLCR);
  tcsetattr(s->out[1], TCSANOW, &t);
}

[[noreturn]] void exec_child(const RunOptions& opts, const Streams& s, std::vector<char*>& argv,
                             std::vector<char*>& env, SandboxPlan* sandbox) {
  if (opts.pty) {
    setsid();
    ioctl(s.out[1], TIOCSCTTY, 0);
  } else {
    setpgid(0, 0);
  }
  // Nothing of this test process but the three streams reaches the program, which reads an
  // empty standard input.
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
  dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
  dup2(s.out[1], 1);
  dup2(s.err[1], 2);
  signal(SIGPIPE, SIG_DFL);
  if (sandbox != nullptr) sandbox->enter(env);
  execve(argv[0], argv.data(), env.data());
  child_fail(argv[0]);
}

// Collects the child's output until both streams end, killing the child (and what it started)
// when the time runs out.
void collect(pid_t pid, int timeout_ms, int out, int err, Result* result) {
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  std::string* sinks[] = {&result->out, &result->err};
  int readers[] = {out, err};
  int64_t deadline = now_ms() + timeout_ms;
  bool exited = false;
  while (readers[0] >= 0 || readers[1] >= 0) {
    pollfd fds[3] = {{readers[0], POLLIN, 0}, {readers[1], POLLIN, 0}, {exited ? -1 : pidfd, POLLIN, 0}};
    int64_t left = deadline - now_ms();
    if (left <= 0) {
      // Out of time (or, after the child ended, a descendant still holds the output open).
      if (!exited) result->timed_out = true;
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      if (exited || left < -1000) break;
    }
    if (poll(fds, 3, static_cast<int>(std::clamp<int64_t>(left, 100, 1000))) < 0 && errno != EINTR) break;
    for (int i = 0; i < 2; i++) {
      if (readers[i] < 0 || fds[i].revents == 0) continue;
      char buf[16384];
      ssize_t got = read(readers[i], buf, sizeof(buf));
      if (got > 0) {
        sinks[i]->append(buf, static_cast<size_t>(got));
      } else if (got == 0 || errno != EINTR) {  // a pty master reports the end as EIO
        close(readers[i]);
        readers[i] = -1;
      }
    }
    if (!exited && fds[2].revents != 0) {
      exited = true;
      // Leftover helpers of the child go with it; their output is still collected.
      kill(-pid, SIGKILL);
      deadline = std::min(deadline, now_ms() + 2000);
    }
  }
  for (int r : readers) {
    if (r >= 0) close(r);
  }
  close(pidfd);
}

Result launch(std::vector<std::string> argv, std::vector<std::string> env, const RunOptions& opts,
              SandboxPlan* sandbox) {
  std::vector<char*> c_argv = c_strings(argv), c_env = c_strings(env);
  Result result;
  Streams s;
  open_streams(opts, &s);
  pid_t pid = fork();
  if (pid < 0) harness_fail("fork");
  if (pid == 0) exec_child(opts, s, c_argv, c_env, sandbox);
  close(s.out[1]);
  close(s.err[1]);
  collect(pid, opts.timeout_ms, s.out[0], s.err[0], &result);
  int status = 0;
  TEMP_FAILURE_RETRY(waitpid(pid, &status, 0));
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (sandbox != nullptr && sandbox->own_entry) remove_own_entry(sandbox->root, pid);
  return result;
}

std::vector<std::string> kestrel_argv(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {kestrel_binary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

}  // namespace

Result run_program(const std::vector<std::string>& argv, const RunOptions& opts) {
  TempDir dir;
  const bool scenario = !opts.scenario.empty() && opts.simulator;
  return launch(argv, child_env(opts, scenario ? dir.write("scenario", opts.scenario) : ""), opts, nullptr);
}

Result run_kestrel(const std::vector<std::string>& args, const RunOptions& opts) {
  return run_program(kestrel_argv(args), opts);
}

TempDir::TempDir() : path_(make_temp_dir("kestrel-test")) {}
TempDir::~TempDir() { remove_tree(path_); }

std::string TempDir::write(const std::string& name, const std::string& content) const {
  write_text(file(name), content, 0644);
  return file(name);
}

std::string TempDir::read(const std::string& name) const { return read_text(file(name)); }

// --- the sandbox -------------------------------------------------------------------------------

Sandbox::Sandbox() : root_(make_temp_dir("kestrel-sandbox")) {
  make_dir("/tmp", 01777);
  make_dir("/proc");
}

Sandbox::~Sandbox() { remove_tree(root_); }

bool Sandbox::Supported(std::string* why) {
  static const std::string reason = []() -> std::string {
    if (geteuid() != 0) return "sandbox needs root";
#ifdef KESTREL_TESTS_UNDER_EMULATION
    // Under qemu-user the kernel sees the emulator, not kestrel (its /proc entries, its command
    // line, its system calls), so sandboxed runs are kept to native builds.
    return "sandbox runs are left out under qemu-user emulation";
#endif
    // A sandboxed run of nothing tells whether this machine lets us make the namespace and mounts.
    Sandbox probe;
    Result r = probe.run_program({"/bin/true"}, {.simulator = false});
    return r.status == 0 ? "" : "sandbox unavailable: " + r.err.substr(0, r.err.find('\n'));
  }();
  if (!reason.empty() && why != nullptr) *why = reason;
  return reason.empty();
}

void Sandbox::write_file(const std::string& inside, const std::string& content, mode_t mode) {
  write_text(host_path(inside), content, mode);
}

void Sandbox::make_dir(const std::string& inside, mode_t mode) {
  make_dirs(host_path(inside));
  chmod(host_path(inside).c_str(), mode);
}

void Sandbox::make_symlink(const std::string& target, const std::string& inside) {
  make_dirs(parent_of(host_path(inside)));
  unlink(host_path(inside).c_str());
  if (symlink(target.c_str(), host_path(inside).c_str()) < 0) harness_fail(inside);
}

std::string Sandbox::read_file(const std::string& inside) const {
  return read_text(host_path(inside));
}

Result Sandbox::run(const std::vector<std::string>& args, const RunOptions& opts) {
  return run_program(kestrel_argv(args), opts);
}

Result Sandbox::run_program(const std::vector<std::string>& argv, const RunOptions& opts) {
  SandboxPlan plan;
  plan.root = root_;
  auto bind = [&](const std::string& source, const std::string& inside) {
    make_dirs(host_path(inside));
    plan.binds.push_back({source, host_path(inside)});
  };
  for (const char* top : {"/usr", "/etc", "/dev"}) bind(top, top);
  // Merged-usr systems link /bin, /lib, ... into /usr; older ones have real folders.
  for (const char* top : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
    struct stat st;
    if (lstat(top, &st) < 0) continue;
    if (S_ISLNK(st.st_mode)) {
      char target[PATH_MAX] = {};
      if (readlink(top, target, sizeof(target) - 1) > 0) make_symlink(target, top);
    } else if (S_ISDIR(st.st_mode)) {
      bind(top, top);
    }
  }
  bind(KESTREL_SOURCE_DIR, KESTREL_SOURCE_DIR);
  std::string build = KESTREL_BUILD_DIR, source = KESTREL_SOURCE_DIR;
  if (build.compare(0, source.size() + 1, source + "/") != 0) bind(build, build);
  // Other programs may lay out their own entry in /proc; a kestrel they start is not checked
  // for leaks.
  plan.own_entry = !argv.empty() && argv[0] == kestrel_binary();
  bind("/proc", "/.realproc");
  for (const char* link : {"self", "thread-self"}) {
    struct stat st;
    std::string inside = std::string("/proc/") + link;
    if (lstat(host_path(inside).c_str(), &st) < 0) make_symlink(std::string("/.realproc/") + link, inside);
  }
  std::string scenario_path;
  if (opts.simulator && !opts.scenario.empty()) {
    scenario_path = "/tmp/.kestrel-sim-scenario";
    write_file(scenario_path, opts.scenario);
  }
  std::vector<std::string> env = child_env(opts, scenario_path);
  for (const std::string& e : env) {
    if (e.starts_with("ASAN_OPTIONS=")) plan.asan_without_leaks = e + ":detect_leaks=0";
  }
  Result result = launch(argv, env, opts, &plan);
  if (!scenario_path.empty()) unlink(host_path(scenario_path).c_str());
  return result;
}

}  // namespace kestrel_e2e
