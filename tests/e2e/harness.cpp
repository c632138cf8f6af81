// SPDX-License-Identifier: Apache-2.0
// The end-to-end harness: fork + exec of the program under test with its output collected
// through pipes (or a pseudo-terminal), and the sandbox that gives it a root of fixture files.
#include "tests/e2e/harness.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <ftw.h>
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

#include <optional>

extern char** environ;

namespace kestrel_e2e {

std::string kestrel_binary() { return KESTREL_BINARY; }
std::string simulator_library() { return KESTREL_SIM_LIBRARY; }
std::string simulator_wrapper() { return KESTREL_SIM_WRAPPER; }
std::string fixtures_dir() { return KESTREL_FIXTURES; }

namespace {

// One bind mount of the sandbox: `source` appears read-only at `target` (a host path).
struct Bind {
  std::string source;
  std::string target;
  bool read_only;
};

// What the child does before exec when it runs inside a sandbox.
struct SandboxPlan {
  std::string root;
  std::vector<Bind> binds;
  bool fixture_proc = false;
  bool task_entry = false;  // the child gets /proc/<pid>/task of the real procfs (see below)
};

int64_t now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

bool make_dirs(const std::string& path, mode_t mode = 0755) {
  for (size_t slash = 1; slash != std::string::npos; slash = path.find('/', slash + 1)) {
    std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), mode) < 0 && errno != EEXIST) return false;
  }
  return mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

std::string parent_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

bool write_text(const std::string& path, const std::string& content, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  bool ok = write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
  close(fd);
  return ok && chmod(path.c_str(), mode) == 0;
}

std::string read_text(const std::string& path) {
  std::string text;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buf[8192];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) text.append(buf, static_cast<size_t>(n));
  close(fd);
  return text;
}

void remove_tree(const std::string& path) {
  if (path.empty()) return;
  // Physical walk that stays on this file system: never follows a link out of the tree.
  nftw(path.c_str(),
       [](const char* p, const struct stat*, int, FTW*) {
         remove(p);
         return 0;
       },
       16,
       FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

std::string make_temp_dir(const char* prefix) {
  std::string templ = std::string("/tmp/") + prefix + "-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) {
    fprintf(stderr, "harness: mkdtemp: %s\n", strerror(errno));
    abort();
  }
  return templ;
}

// The environment of the child: ours without anything that would change the output or the
// simulator's behaviour, then TZ=UTC, the simulator and the caller's entries.
std::vector<std::string> child_env(const RunOptions& opts, const std::string& scenario_path,
                                   bool leaks_off) {
  static const char* const kDropped[] = {"LD_PRELOAD", "KESTREL_SIM_SCENARIO", "TZ", "COLUMNS",
                                         "LINES", "ASAN_OPTIONS"};
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; e++) {
    std::string entry = *e;
    std::string name = entry.substr(0, entry.find('='));
    bool dropped = false;
    for (const char* d : kDropped) dropped |= name == d;
    if (!dropped) env.push_back(entry);
  }
  env.push_back("TZ=UTC");
  // A sanitized kestrel would refuse a preloaded library ahead of its runtime.
  std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
  asan += std::string(asan.empty() ? "" : ":") + "verify_asan_link_order=0";
  if (leaks_off) asan += ":detect_leaks=0";
  env.push_back("ASAN_OPTIONS=" + asan);
  if (opts.simulator) {
    env.push_back("LD_PRELOAD=" + simulator_library());
    if (!scenario_path.empty()) env.push_back("KESTREL_SIM_SCENARIO=" + scenario_path);
  }
  for (const std::string& extra : opts.env) {
    std::string prefix = extra.substr(0, extra.find('=') + 1);
    std::erase_if(env, [&](const std::string& e) { return e.compare(0, prefix.size(), prefix) == 0; });
    env.push_back(extra);
  }
  return env;
}

std::vector<char*> c_strings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

[[noreturn]] void child_fail(const char* what) {
  char line[256];
  int n = snprintf(line, sizeof(line), "harness: %s: %s\n", what, strerror(errno));
  (void)!write(2, line, static_cast<size_t>(n));
  _exit(127);
}

// Runs in the child, after fork: only system calls from here on.
void enter_sandbox(const SandboxPlan& plan) {
  if (unshare(CLONE_NEWNS) < 0) child_fail("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) child_fail("mount private");
  for (const Bind& b : plan.binds) {
    if (mount(b.source.c_str(), b.target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0) {
      child_fail(b.source.c_str());
    }
    if (!b.read_only) continue;
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
  if (chroot(plan.root.c_str()) < 0) child_fail("chroot");
  if (chdir("/") < 0) child_fail("chdir");
}

// LeakSanitizer, at the exit of a sanitized program, stops its threads and finds them in
// /proc/<pid>/task by number, not through /proc/self. So a fixture /proc gets the child's own
// entry holding just that folder of the real procfs; walks of /proc that leave the program
// itself out never see it. Runs in the child, inside the sandbox. False when the fixture already
// has an entry of that number.
bool make_task_entry() {
  char dir[32], target[48], link[48];
  const int pid = getpid();
  snprintf(dir, sizeof(dir), "/proc/%d", pid);
  snprintf(target, sizeof(target), "/.realproc/%d/task", pid);
  snprintf(link, sizeof(link), "/proc/%d/task", pid);
  if (mkdir(dir, 0755) < 0) return false;
  if (symlink(target, link) == 0) return true;
  rmdir(dir);
  return false;
}

// Removes what make_task_entry made for `pid` under the sandbox root, and nothing a fixture put
// there.
void remove_task_entry(const std::string& root, pid_t pid) {
  const std::string dir = root + "/proc/" + std::to_string(pid);
  const std::string target = "/.realproc/" + std::to_string(pid) + "/task";
  char got[64] = {};
  if (readlink((dir + "/task").c_str(), got, sizeof(got) - 1) < 0 || target != got) return;
  unlink((dir + "/task").c_str());
  rmdir(dir.c_str());
}

Result launch(std::vector<std::string> argv, const RunOptions& opts,
              const std::string& scenario_path, const SandboxPlan* plan) {
  static const bool ignore_sigpipe = [] { return signal(SIGPIPE, SIG_IGN) != SIG_ERR; }();
  (void)ignore_sigpipe;
  const bool fixture_proc = plan != nullptr && plan->fixture_proc;
  std::vector<std::string> env = child_env(opts, scenario_path, fixture_proc && !plan->task_entry);
  // Where the child cannot have its task entry, it runs without leak detection instead.
  std::string asan_without_leaks;
  size_t asan_at = env.size();
  for (size_t i = 0; i < env.size(); i++) {
    if (env[i].starts_with("ASAN_OPTIONS=")) asan_at = i;
  }
  if (asan_at < env.size()) asan_without_leaks = env[asan_at] + ":detect_leaks=0";
  std::vector<char*> c_argv = c_strings(argv), c_env = c_strings(env);

  Result result;
  int in[2], out[2] = {-1, -1}, err[2];
  if (pipe2(in, O_CLOEXEC) < 0 || pipe2(err, O_CLOEXEC) < 0) {
    result.err = "harness: pipe failed";
    return result;
  }
  if (opts.pty) {
    winsize ws = {};
    ws.ws_col = static_cast<unsigned short>(opts.pty_cols);
    ws.ws_row = static_cast<unsigned short>(opts.pty_rows);
    if (openpty(&out[0], &out[1], nullptr, nullptr, &ws) < 0) {
      result.err = std::string("harness: openpty: ") + strerror(errno);
      return result;
    }
    // Plain "\n" line ends, so the output compares as text.
    termios t;
    tcgetattr(out[1], &t);
    t.c_oflag &= ~(OPOST | ONLCR);
    tcsetattr(out[1], TCSANOW, &t);
    fcntl(out[0], F_SETFD, FD_CLOEXEC);
    fcntl(out[1], F_SETFD, FD_CLOEXEC);
  } else if (pipe2(out, O_CLOEXEC) < 0) {
    result.err = "harness: pipe failed";
    return result;
  }

  pid_t pid = fork();
  if (pid == 0) {
    if (opts.pty) {
      setsid();
      ioctl(out[1], TIOCSCTTY, 0);
    } else {
      setpgid(0, 0);
    }
    dup2(in[0], 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    signal(SIGPIPE, SIG_DFL);
    if (plan != nullptr) enter_sandbox(*plan);
    if (fixture_proc && plan->task_entry && !make_task_entry() && asan_at < env.size()) {
      c_env[asan_at] = asan_without_leaks.data();
    }
    execve(c_argv[0], c_argv.data(), c_env.data());
    child_fail(c_argv[0]);
  }
  close(in[0]);
  close(out[1]);
  close(err[1]);
  if (pid < 0) {
    close(in[1]);
    close(out[0]);
    close(err[0]);
    result.err = "harness: fork failed";
    return result;
  }

  int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  int stdin_fd = in[1];
  fcntl(stdin_fd, F_SETFL, O_NONBLOCK);
  size_t stdin_done = 0;
  if (opts.stdin_data.empty()) {
    close(stdin_fd);
    stdin_fd = -1;
  }
  std::string* sinks[] = {&result.out, &result.err};
  int readers[] = {out[0], err[0]};
  int64_t deadline = now_ms() + opts.timeout_ms;
  bool exited = false;
  while (readers[0] >= 0 || readers[1] >= 0) {
    pollfd fds[4];
    int n = 0;
    for (int r : readers) fds[n++] = {r, POLLIN, 0};
    fds[n++] = {stdin_fd, POLLOUT, 0};
    fds[n++] = {exited ? -1 : pidfd, POLLIN, 0};
    int64_t left = deadline - now_ms();
    if (left <= 0) {
      // Out of time (or, after the child ended, a descendant still holds the output open).
      if (!exited) result.timed_out = true;
      kill(-pid, SIGKILL);
      kill(pid, SIGKILL);
      if (exited || left < -1000) break;
    }
    // Without a pidfd the child's end is found by looking every 10 ms.
    int wait_ms = static_cast<int>(left <= 0 ? 100 : std::min<int64_t>(left, pidfd < 0 ? 10 : 1000));
    if (poll(fds, static_cast<nfds_t>(n), wait_ms) < 0 && errno != EINTR) break;
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
    if (stdin_fd >= 0 && fds[2].revents != 0) {
      ssize_t put = write(stdin_fd, opts.stdin_data.data() + stdin_done,
                          opts.stdin_data.size() - stdin_done);
      if (put > 0) stdin_done += static_cast<size_t>(put);
      if ((put < 0 && errno != EAGAIN && errno != EINTR) || stdin_done == opts.stdin_data.size()) {
        close(stdin_fd);
        stdin_fd = -1;
      }
    }
    if (!exited && (pidfd < 0 ? waitid(P_PID, static_cast<id_t>(pid), nullptr,
                                       WEXITED | WNOHANG | WNOWAIT) == 0
                              : fds[3].revents != 0)) {
      exited = true;
      // Leftover helpers of the child go with it; their output is still collected.
      kill(-pid, SIGKILL);
      deadline = std::min(deadline, now_ms() + 2000);
    }
  }
  for (int r : readers) {
    if (r >= 0) close(r);
  }
  if (stdin_fd >= 0) close(stdin_fd);
  if (pidfd >= 0) close(pidfd);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (fixture_proc && plan->task_entry) remove_task_entry(plan->root, pid);
  return result;
}

}  // namespace

Result run_program(const std::vector<std::string>& argv, const RunOptions& opts) {
  if (opts.scenario.empty() || !opts.simulator) return launch(argv, opts, "", nullptr);
  TempDir dir;
  std::string path = dir.write("scenario", opts.scenario);
  return launch(argv, opts, path, nullptr);
}

Result run_kestrel(const std::vector<std::string>& args, const RunOptions& opts) {
  std::vector<std::string> argv = {kestrel_binary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_program(argv, opts);
}

TempDir::TempDir() : path_(make_temp_dir("kestrel-test")) {}
TempDir::~TempDir() { remove_tree(path_); }

std::string TempDir::write(const std::string& name, const std::string& content) const {
  std::string path = file(name);
  make_dirs(parent_of(path));
  if (!write_text(path, content)) {
    fprintf(stderr, "harness: cannot write %s: %s\n", path.c_str(), strerror(errno));
    abort();
  }
  return path;
}

std::string TempDir::read(const std::string& name) const { return read_text(file(name)); }

// --- Sandbox ----------------------------------------------------------------------------------

Sandbox::Sandbox() : root_(make_temp_dir("kestrel-sandbox")) {
  make_dir("/tmp", 01777);
  make_dir("/proc");
}

Sandbox::~Sandbox() { remove_tree(root_); }

bool Sandbox::Supported(std::string* why) {
  static const std::optional<std::string> reason = []() -> std::optional<std::string> {
    if (geteuid() != 0) return "sandbox needs root";
#ifdef KESTREL_TESTS_UNDER_EMULATION
    // Under qemu-user the kernel sees the emulator, not kestrel (its /proc entries, its command
    // line, its system calls), so sandboxed runs are kept to native builds.
    return "sandbox runs are left out under qemu-user emulation";
#endif
    pid_t pid = fork();
    if (pid == 0) {
      if (unshare(CLONE_NEWNS) < 0) _exit(errno);
      _exit(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0 ? errno : 0);
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) < 0) return "sandbox: fork failed";
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
      return std::string("sandbox: private mount namespace unavailable: ") +
             strerror(WIFEXITED(status) ? WEXITSTATUS(status) : EPERM);
    }
    return std::nullopt;
  }();
  if (reason && why != nullptr) *why = *reason;
  return !reason;
}

void Sandbox::write_file(const std::string& inside, const std::string& content, mode_t mode) {
  make_dirs(parent_of(host_path(inside)));
  if (!write_text(host_path(inside), content, mode)) {
    fprintf(stderr, "sandbox: cannot write %s: %s\n", inside.c_str(), strerror(errno));
    abort();
  }
}

void Sandbox::make_dir(const std::string& inside, mode_t mode) {
  make_dirs(host_path(inside));
  chmod(host_path(inside).c_str(), mode);
}

void Sandbox::make_symlink(const std::string& target, const std::string& inside) {
  make_dirs(parent_of(host_path(inside)));
  unlink(host_path(inside).c_str());
  if (symlink(target.c_str(), host_path(inside).c_str()) < 0) {
    fprintf(stderr, "sandbox: cannot link %s: %s\n", inside.c_str(), strerror(errno));
    abort();
  }
}

void Sandbox::use_real_proc() { real_proc_ = true; }

std::string Sandbox::read_file(const std::string& inside) const {
  return read_text(host_path(inside));
}

Result Sandbox::run(const std::vector<std::string>& args, const RunOptions& opts) {
  std::vector<std::string> argv = {kestrel_binary()};
  argv.insert(argv.end(), args.begin(), args.end());
  return run_program(argv, opts);
}

Result Sandbox::run_program(const std::vector<std::string>& argv, const RunOptions& opts) {
  SandboxPlan plan;
  plan.root = root_;
  auto bind = [&](const std::string& path, bool read_only) {
    make_dirs(host_path(path));
    plan.binds.push_back({path, host_path(path), read_only});
  };
  bind("/usr", true);
  bind("/etc", true);
  bind("/dev", true);
  // Merged-usr systems link /bin, /lib, ... into /usr; older ones have real folders.
  for (const char* top : {"/bin", "/sbin", "/lib", "/lib32", "/lib64", "/libx32"}) {
    struct stat st;
    if (lstat(top, &st) < 0) continue;
    if (S_ISLNK(st.st_mode)) {
      char target[PATH_MAX] = {};
      if (readlink(top, target, sizeof(target) - 1) > 0) make_symlink(target, top);
    } else if (S_ISDIR(st.st_mode)) {
      bind(top, true);
    }
  }
  bind(KESTREL_SOURCE_DIR, true);
  std::string build = KESTREL_BUILD_DIR, source = KESTREL_SOURCE_DIR;
  if (build.compare(0, source.size() + 1, source + "/") != 0) bind(build, true);
  plan.fixture_proc = !real_proc_;
  // Other programs may lay out their own entry in /proc; a kestrel they start is not checked
  // for leaks.
  plan.task_entry = plan.fixture_proc && !argv.empty() && argv[0] == kestrel_binary();
  if (real_proc_) {
    bind("/proc", false);
  } else {
    bind("/.realproc", false);
    plan.binds.back().source = "/proc";
    for (const char* link : {"self", "thread-self"}) {
      struct stat st;
      std::string inside = std::string("/proc/") + link;
      if (lstat(host_path(inside).c_str(), &st) < 0) make_symlink(std::string("/.realproc/") + link, inside);
    }
  }
  std::string scenario_path;
  if (opts.simulator && !opts.scenario.empty()) {
    scenario_path = "/tmp/.kestrel-sim-scenario";
    write_file(scenario_path, opts.scenario);
  }
  Result result = launch(argv, opts, scenario_path, &plan);
  if (!scenario_path.empty()) unlink(host_path(scenario_path).c_str());
  return result;
}

}  // namespace kestrel_e2e
