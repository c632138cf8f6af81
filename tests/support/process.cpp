// SPDX-License-Identifier: Apache-2.0
// The end-to-end process runner: fork and exec of the program under test, its output collected
// through pipes (or a pseudo-terminal) until it ends or its time runs out. A sandboxed child
// enters, between fork and exec, a private mount namespace and a chroot of fixture files.
#include "tests/support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/sandbox.h"

extern char** environ;

namespace kestrel_e2e {

namespace fs = std::filesystem;

std::string read_text(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

namespace {

// The harness itself could not do its part (a full /tmp, no pipes left): no test result means
// anything after that. A child between fork and exec reports on its standard error (with system
// calls only) and ends with status 127.
[[noreturn]] void harness_fail(const char* what, bool in_child = false) {
  char line[256];
  int n = snprintf(line, sizeof(line), "harness: %s: %s\n", what, strerror(errno));
  (void)!write(2, line, static_cast<size_t>(n));
  if (in_child) _exit(127);
  abort();
}

// Makes `path` (a folder, with its parents) or, given `content`, a file with that content, with
// the permissions of `mode` whatever the umask.
void make_path(const std::string& path, mode_t mode, const std::string* content = nullptr) {
  std::error_code error;
  fs::create_directories(content ? fs::path(path).parent_path() : fs::path(path), error);
  if (content != nullptr && !(std::ofstream(path, std::ios::binary) << *content << std::flush)) {
    harness_fail(path.c_str());
  }
  fs::permissions(path, static_cast<fs::perms>(mode), error);
  if (error) harness_fail(path.c_str());
}

std::string make_temp_dir(const char* prefix) {
  std::string templ = std::string("/tmp/") + prefix + "-XXXXXX";
  if (mkdtemp(templ.data()) == nullptr) harness_fail(templ.c_str());
  return templ;
}

// The child's environment: ours without what would change the output or the simulator, then
// TZ=UTC, the simulator with the scenario at `scenario_path` and the caller's entries, each
// replacing ours of its name.
std::vector<std::string> child_env(const RunOptions& opts, const std::string& scenario_path) {
  std::vector<std::string> env;
  for (char** e = environ; *e != nullptr; e++) env.push_back(*e);
  auto unset = [&](const std::string& name) {
    std::erase_if(env, [&](const std::string& e) { return e.starts_with(name + "="); });
  };
  for (const char* name : {"LD_PRELOAD", "KESTREL_SIM_SCENARIO", "COLUMNS", "LINES"}) unset(name);
  auto set = [&](const std::string& entry) {
    unset(entry.substr(0, entry.find('=')));
    env.push_back(entry);
  };
  set("TZ=UTC");
  // A sanitized kestrel would refuse a preloaded library ahead of its runtime.
  std::string asan = getenv("ASAN_OPTIONS") ? getenv("ASAN_OPTIONS") : "";
  set("ASAN_OPTIONS=" + asan + (asan.empty() ? "" : ":") + "verify_asan_link_order=0");
  if (opts.simulator) set("LD_PRELOAD=" + simulator_library());
  if (opts.simulator && !scenario_path.empty()) set("KESTREL_SIM_SCENARIO=" + scenario_path);
  for (const std::string& extra : opts.env) set(extra);
  return env;
}

// What a sandboxed child does between fork and exec (only system calls there). Each bind mount
// shows a host folder read-only at a path under the root: nothing the tests run writes to the
// host's folders, nor to the real procfs bound among them.
struct SandboxPlan {
  std::string root;
  std::vector<std::pair<std::string, std::string>> binds;  // source, target (a host path)
  bool own_entry = false;  // the child gets its entry of the real procfs
  std::string asan_without_leaks;

  void enter(std::vector<char*>& env) {
    if (unshare(CLONE_NEWNS) < 0) harness_fail("unshare", true);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) harness_fail("mount private", true);
    for (const auto& [source, target] : binds) {
      if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) < 0) {
        harness_fail(source.c_str(), true);
      }
      // A read-only remount must keep the flags the original mount is locked with.
      struct statvfs st = {};
      statvfs(source.c_str(), &st);
      const unsigned long keep =
          st.f_flag & (ST_NOSUID | ST_NODEV | ST_NOEXEC | ST_NOATIME | ST_NODIRATIME | ST_RELATIME);
      if (mount(nullptr, target.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY | keep, nullptr) < 0) {
        harness_fail(target.c_str(), true);
      }
    }
    if (chroot(root.c_str()) < 0) harness_fail("chroot", true);
    if (chdir("/") < 0) harness_fail("chdir", true);
    // LeakSanitizer, at the exit of a sanitized program, stops its threads and finds them in
    // /proc/<pid>/task by number, not through /proc/self. So the fixture /proc gets the child's
    // own entry, a link to the real one; walks of /proc leave the program itself out. Where the
    // fixture already has an entry of that number, the child runs without leak detection.
    char entry[32], real[48];
    snprintf(entry, sizeof(entry), "/proc/%d", getpid());
    snprintf(real, sizeof(real), "/.realproc/%d", getpid());
    if (own_entry && symlink(real, entry) == 0) return;
    for (char*& e : env) {
      if (e != nullptr && strncmp(e, "ASAN_OPTIONS=", 13) == 0) e = asan_without_leaks.data();
    }
  }
};

std::vector<char*> c_strings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// Collects the child's output until both streams end, killing the child (and what it started)
// when the time runs out.
void collect(pid_t pid, int out, int err, Result* result) {
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  std::string* sinks[] = {&result->out, &result->err};
  int readers[] = {out, err};
  using Clock = std::chrono::steady_clock;
  Clock::time_point deadline = Clock::now() + std::chrono::seconds(20);
  bool exited = false;
  while (readers[0] >= 0 || readers[1] >= 0) {
    pollfd fds[3] = {{readers[0], POLLIN, 0}, {readers[1], POLLIN, 0}, {exited ? -1 : pidfd, POLLIN, 0}};
    int64_t left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) {
      // Out of time (or, after the child ended, a descendant still holds the output open).
      if (!exited) result->timed_out = true;
      kill(-pid, SIGKILL);
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
      deadline = std::min(deadline, Clock::now() + std::chrono::seconds(2));
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
  // The parent's ends ([0]) and the child's ends ([1]) of its standard output and error.
  int out[2], err[2];
  if (pipe2(err, O_CLOEXEC) < 0 || (!opts.pty && pipe2(out, O_CLOEXEC) < 0)) harness_fail("pipe");
  if (opts.pty) {
    winsize ws = {.ws_row = 24, .ws_col = static_cast<unsigned short>(opts.pty_cols)};
    termios raw = {};
    cfmakeraw(&raw);  // plain "\n" line ends, so the output compares as text
    if (openpty(&out[0], &out[1], nullptr, &raw, &ws) < 0) harness_fail("openpty");
  }
  pid_t pid = fork();
  if (pid < 0) harness_fail("fork");
  if (pid == 0) {
    setsid();  // its own process group, which goes with it
    // Nothing of this test process but the three streams reaches the program, which reads an
    // empty standard input.
    close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    signal(SIGPIPE, SIG_DFL);
    if (sandbox != nullptr) sandbox->enter(c_env);
    execve(c_argv[0], c_argv.data(), c_env.data());
    harness_fail(c_argv[0], true);
  }
  close(out[1]);
  close(err[1]);
  Result result;
  collect(pid, out[0], err[0], &result);
  int status = 0;
  TEMP_FAILURE_RETRY(waitpid(pid, &status, 0));
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  // The child's link into the real procfs goes; a fixture's entry of that number is a folder,
  // which unlink leaves.
  if (sandbox != nullptr && sandbox->own_entry) {
    unlink((sandbox->root + "/proc/" + std::to_string(pid)).c_str());
  }
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
TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
  make_path(file(name), 0644, &content);
  return file(name);
}

std::string TempDir::read(const std::string& name) const { return read_text(file(name)); }

// The host's system folders, shown in the sandbox at their own paths.
static const char* const kHostTops[] = {"/usr", "/etc", "/dev", "/bin", "/sbin",
                                        "/lib", "/lib32", "/lib64", "/libx32"};

// The root's fixed layout; run_program adds the mount points. Merged-usr systems link /bin,
// /lib... into /usr, and the root gets the same links.
Sandbox::Sandbox() : root_(make_temp_dir("kestrel-sandbox")) {
  make_dir("/tmp", 01777);
  for (const char* top : kHostTops) {
    std::error_code error;
    if (fs::is_symlink(top, error)) make_symlink(fs::read_symlink(top, error), top);
  }
  make_symlink("/.realproc/self", "/proc/self");
  make_symlink("/.realproc/thread-self", "/proc/thread-self");
}

// The mounts live in the children's namespaces only: here the root is plain folders, and
// links in it are removed, never followed.
Sandbox::~Sandbox() {
  std::error_code ignored;
  fs::remove_all(root_, ignored);
}

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
  make_path(host_path(inside), mode, &content);
}

void Sandbox::make_dir(const std::string& inside, mode_t mode) { make_path(host_path(inside), mode); }

void Sandbox::make_symlink(const std::string& target, const std::string& inside) {
  std::error_code error;
  fs::create_directories(fs::path(host_path(inside)).parent_path(), error);
  fs::remove(host_path(inside), error);
  fs::create_symlink(target, host_path(inside), error);
  if (error) harness_fail(inside.c_str());
}

std::string Sandbox::read_file(const std::string& inside) const { return read_text(host_path(inside)); }

Result Sandbox::run(const std::vector<std::string>& args, const RunOptions& opts) {
  return run_program(kestrel_argv(args), opts);
}

Result Sandbox::run_program(const std::vector<std::string>& argv, const RunOptions& opts) {
  SandboxPlan plan;
  plan.root = root_;
  auto bind = [&](const std::string& source, const std::string& inside) {
    make_dir(inside);
    plan.binds.emplace_back(source, host_path(inside));
  };
  for (const char* top : kHostTops) {
    std::error_code error;
    if (!fs::is_symlink(top, error) && fs::is_directory(top, error)) bind(top, top);
  }
  bind("/proc", "/.realproc");
  bind(KESTREL_SOURCE_DIR, KESTREL_SOURCE_DIR);
  std::string build = KESTREL_BUILD_DIR, source = KESTREL_SOURCE_DIR;
  if (build.compare(0, source.size() + 1, source + "/") != 0) bind(build, build);
  // Other programs may lay out their own entry in /proc; a kestrel they start is not checked
  // for leaks.
  plan.own_entry = !argv.empty() && argv[0] == kestrel_binary();
  const std::string scenario = opts.simulator && !opts.scenario.empty() ? "/tmp/.kestrel-sim-scenario" : "";
  if (!scenario.empty()) write_file(scenario, opts.scenario);
  std::vector<std::string> env = child_env(opts, scenario);
  for (const std::string& e : env) {
    if (e.starts_with("ASAN_OPTIONS=")) plan.asan_without_leaks = e + ":detect_leaks=0";
  }
  return launch(argv, env, opts, &plan);
}

}  // namespace kestrel_e2e
