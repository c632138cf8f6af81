// SPDX-License-Identifier: Apache-2.0
// Descriptor report for the end-to-end tests, preloaded beside the driver simulator. With
// KESTREL_FD_REPORT=<path> in its
// environment, the program writes to <path>, as it ends through exit(), every descriptor it opened
// since it started and still holds, one line each in descriptor order:
//
//   3 socket:unix/seqpacket cloexec
//   5 /data/tarvo/heapdump/kestrel/log.txt cloexec
//
// Sockets show their domain and type, pipes show "pipe", files their path; "cloexec" when the
// descriptor would not reach a program started by exec. Descriptors the program inherited are
// left out unless it replaced them. The report is taken as exit() is called, before static
// destructors run, or, when main returns instead, as this library is unloaded. The variable is
// removed from the environment at start, so programs the tool starts write no report of theirs.
#undef _FORTIFY_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kestrel_test {
namespace {

struct Held {
  int fd;
  dev_t dev;
  ino_t ino;
};

struct ReportState {
  std::string path;  // empty: no report asked for
  pid_t pid = 0;
  std::vector<Held> inherited;
  bool written = false;
};

// Never destroyed: the report is written while the process exits.
ReportState& state() {
  static ReportState* s = new ReportState;
  return *s;
}

// The descriptors open now, with what they refer to; `skip` is the listing's own.
template <typename F>
void for_each_fd(F&& f) {
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return;
  const int skip = dirfd(dir);
  std::vector<int> fds;
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    int fd = atoi(e->d_name);
    if (fd != skip) fds.push_back(fd);
  }
  closedir(dir);
  std::sort(fds.begin(), fds.end());
  for (int fd : fds) f(fd);
}

std::string socket_kind(int fd) {
  int domain = -1, type = -1;
  socklen_t len = sizeof(int);
  getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len);
  getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len);
  const char* t = type == SOCK_STREAM ? "stream" : type == SOCK_DGRAM ? "dgram"
                : type == SOCK_SEQPACKET ? "seqpacket" : "other";
  return std::string("socket:") + (domain == AF_UNIX ? "unix" : std::to_string(domain)) + "/" + t;
}

std::string describe(int fd) {
  char link[64], target[4096] = {};
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof(target) - 1);
  std::string what = n > 0 ? std::string(target, static_cast<size_t>(n)) : "?";
  if (what.starts_with("socket:[")) what = socket_kind(fd);
  if (what.starts_with("pipe:[")) what = "pipe";
  if (fcntl(fd, F_GETFD) & FD_CLOEXEC) what += " cloexec";
  return what;
}

bool inherited(int fd, const struct stat& st) {
  for (const Held& h : state().inherited) {
    if (h.fd == fd && h.dev == st.st_dev && h.ino == st.st_ino) return true;
  }
  return false;
}

void write_report() {
  ReportState& s = state();
  if (s.path.empty() || s.written || getpid() != s.pid) return;
  s.written = true;
  const int saved_errno = errno;
  std::string text;
  for_each_fd([&](int fd) {
    struct stat st;
    if (fstat(fd, &st) == 0 && inherited(fd, st)) return;
    text += std::to_string(fd) + " " + describe(fd) + "\n";
  });
  int out = open(s.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0 || write(out, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    std::string line = "fd report: cannot write " + s.path + ": " + strerror(errno) + "\n";
    (void)!write(2, line.data(), line.size());
  }
  if (out >= 0) close(out);
  errno = saved_errno;
}

__attribute__((constructor)) void take_inherited() {
  const char* path = getenv("KESTREL_FD_REPORT");
  if (path == nullptr || *path == '\0') return;
  ReportState& s = state();
  s.path = path;
  s.pid = getpid();
  unsetenv("KESTREL_FD_REPORT");
  for_each_fd([&](int fd) {
    struct stat st;
    if (fstat(fd, &st) == 0) s.inherited.push_back({fd, st.st_dev, st.st_ino});
  });
}

__attribute__((destructor)) void report_on_unload() { write_report(); }

}  // namespace
}  // namespace kestrel_test

extern "C" void exit(int status) noexcept {
  kestrel_test::write_report();
  static auto real = reinterpret_cast<void (*)(int)>(dlsym(RTLD_NEXT, "exit"));
  real(status);
  __builtin_unreachable();
}
