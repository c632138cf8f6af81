// SPDX-License-Identifier: Apache-2.0
// The end-to-end sandbox: a root of fixture files under /tmp with the host's system folders and
// the build tree bound read-only, entered by the child through a private mount namespace.
#include "tests/support/sandbox.h"

#include <errno.h>
#include <limits.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <optional>

namespace kestrel_e2e {

namespace {

// One bind mount of the sandbox: `source` appears read-only at `target` (a host path).
struct Bind {
  std::string source;
  std::string target;
  bool read_only;
};

// Runs in the child, after fork: only system calls from here on.
void enter_sandbox(const std::string& root, const std::vector<Bind>& binds) {
  if (unshare(CLONE_NEWNS) < 0) child_fail("unshare");
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) child_fail("mount private");
  for (const Bind& b : binds) {
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
  if (chroot(root.c_str()) < 0) child_fail("chroot");
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

// What the child does before exec when it runs inside a sandbox, and the clean-up after it.
struct SandboxPlan : ChildSetup {
  std::string root;
  std::vector<Bind> binds;
  bool task_entry = false;  // the child gets /proc/<pid>/task of the real procfs (see below)
  std::string asan_without_leaks;

  void InChild(std::vector<char*>& env) override {
    enter_sandbox(root, binds);
    if (!task_entry || make_task_entry()) return;
    for (char*& e : env) {
      if (e != nullptr && strncmp(e, "ASAN_OPTIONS=", 13) == 0) e = asan_without_leaks.data();
    }
  }
  void Reaped(pid_t pid) override {
    if (task_entry) remove_task_entry(root, pid);
  }
};

}  // namespace

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
  for (const char* top : {"/usr", "/etc", "/dev"}) bind(top, true);
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
  // Other programs may lay out their own entry in /proc; a kestrel they start is not checked
  // for leaks.
  plan.task_entry = !argv.empty() && argv[0] == kestrel_binary();
  bind("/.realproc", false);
  plan.binds.back().source = "/proc";
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
  // Where the child cannot have its task entry, it runs without leak detection instead.
  std::vector<std::string> env = child_env(opts, scenario_path, !plan.task_entry);
  for (const std::string& e : env) {
    if (e.starts_with("ASAN_OPTIONS=")) plan.asan_without_leaks = e + ":detect_leaks=0";
  }
  Result result = launch(argv, env, opts, &plan);
  if (!scenario_path.empty()) unlink(host_path(scenario_path).c_str());
  return result;
}

}  // namespace kestrel_e2e
