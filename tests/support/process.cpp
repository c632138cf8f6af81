// SPDX-License-Identifier: Apache-2.0
// The end-to-end process runner: fork and exec of the program under test, its output collected
// through pipes (or a pseudo-terminal) until it ends or its time runs out.
#include "tests/support/process.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <termios.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>

extern char** environ;

namespace kestrel_e2e {

std::string kestrel_binary() { return KESTREL_BINARY; }
std::string simulator_library() { return KESTREL_SIM_LIBRARY; }
std::string simulator_wrapper() { return KESTREL_SIM_WRAPPER; }
std::string fd_report_library() { return KESTREL_FD_REPORT_LIBRARY; }
std::string fixtures_dir() { return KESTREL_FIXTURES; }

bool make_dirs(const std::string& path, mode_t mode) {
  for (size_t slash = 1; slash != std::string::npos; slash = path.find('/', slash + 1)) {
    std::string part = path.substr(0, slash);
    if (mkdir(part.c_str(), mode) < 0 && errno != EEXIST) return false;
  }
  return mkdir(path.c_str(), mode) == 0 || errno == EEXIST;
}

std::string parent_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

bool write_text(const std::string& path, const std::string& content, mode_t mode) {
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

std::vector<std::string> child_env(const RunOptions& opts, const std::string& scenario_path,
                                   bool leaks_off) {
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
  if (leaks_off) asan += ":detect_leaks=0";
  env.push_back("ASAN_OPTIONS=" + asan);
  if (opts.simulator || !opts.preload.empty()) {
    std::string preload = opts.simulator ? simulator_library() : "";
    for (const std::string& lib : opts.preload) preload += (preload.empty() ? "" : ":") + lib;
    env.push_back("LD_PRELOAD=" + preload);
  }
  if (opts.simulator && !scenario_path.empty()) env.push_back("KESTREL_SIM_SCENARIO=" + scenario_path);
  for (const std::string& extra : opts.env) {
    std::string prefix = extra.substr(0, extra.find('=') + 1);
    std::erase_if(env, [&](const std::string& e) { return e.compare(0, prefix.size(), prefix) == 0; });
    env.push_back(extra);
  }
  return env;
}

[[noreturn]] void child_fail(const char* what) {
  char line[256];
  int n = snprintf(line, sizeof(line), "harness: %s: %s\n", what, strerror(errno));
  (void)!write(2, line, static_cast<size_t>(n));
  _exit(127);
}

namespace {

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

// The parent's ends and the child's ends of its three standard streams.
struct Streams {
  int in[2] = {-1, -1};
  int out[2] = {-1, -1};
  int err[2] = {-1, -1};
};

bool open_streams(const RunOptions& opts, Streams* s, std::string* why) {
  if (pipe2(s->in, O_CLOEXEC) < 0 || pipe2(s->err, O_CLOEXEC) < 0 ||
      (!opts.pty && pipe2(s->out, O_CLOEXEC) < 0)) {
    *why = "harness: pipe failed";
    return false;
  }
  if (!opts.pty) return true;
  winsize ws = {};
  ws.ws_col = static_cast<unsigned short>(opts.pty_cols);
  ws.ws_row = 24;
  if (openpty(&s->out[0], &s->out[1], nullptr, nullptr, &ws) < 0) {
    *why = std::string("harness: openpty: ") + strerror(errno);
    return false;
  }
  // Plain "\n" line ends, so the output compares as text.
  termios t;
  tcgetattr(s->out[1], &t);
  t.c_oflag &= ~(OPOST | ONLCR);
  tcsetattr(s->out[1], TCSANOW, &t);
  fcntl(s->out[0], F_SETFD, FD_CLOEXEC);
  fcntl(s->out[1], F_SETFD, FD_CLOEXEC);
  return true;
}

[[noreturn]] void exec_child(const RunOptions& opts, const Streams& s, std::vector<char*>& argv,
                             std::vector<char*>& env, ChildSetup* setup) {
  if (opts.pty) {
    setsid();
    ioctl(s.out[1], TIOCSCTTY, 0);
  } else {
    setpgid(0, 0);
  }
  dup2(s.in[0], 0);
  dup2(s.out[1], 1);
  dup2(s.err[1], 2);
  signal(SIGPIPE, SIG_DFL);
  if (setup != nullptr) setup->InChild(env);
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

}  // namespace

Result launch(const std::vector<std::string>& argv, std::vector<std::string> env,
              const RunOptions& opts, ChildSetup* setup) {
  static const bool ignore_sigpipe = [] { return signal(SIGPIPE, SIG_IGN) != SIG_ERR; }();
  (void)ignore_sigpipe;
  std::vector<std::string> args = argv;
  std::vector<char*> c_argv = c_strings(args), c_env = c_strings(env);
  Result result;
  Streams s;
  if (!open_streams(opts, &s, &result.err)) return result;

  pid_t pid = fork();
  if (pid == 0) exec_child(opts, s, c_argv, c_env, setup);
  close(s.in[0]);
  close(s.in[1]);  // the child reads an empty standard input
  close(s.out[1]);
  close(s.err[1]);
  if (pid < 0) {
    for (int fd : {s.out[0], s.err[0]}) close(fd);
    result.err = "harness: fork failed";
    return result;
  }
  collect(pid, opts.timeout_ms, s.out[0], s.err[0], &result);
  int status = 0;
  TEMP_FAILURE_RETRY(waitpid(pid, &status, 0));
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  if (setup != nullptr) setup->Reaped(pid);
  return result;
}

Result run_program(const std::vector<std::string>& argv, const RunOptions& opts) {
  TempDir dir;
  const bool scenario = !opts.scenario.empty() && opts.simulator;
  return launch(argv, child_env(opts, scenario ? dir.write("scenario", opts.scenario) : "", false), opts, nullptr);
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

}  // namespace kestrel_e2e
