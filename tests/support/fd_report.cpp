// SPDX-License-Identifier: Apache-2.0
// Descriptor report for the end-to-end tests, preloaded beside the driver simulator. With
// KESTREL_FD_REPORT=<path> in its environment, the program writes to <path>, as it ends, every
// descriptor above the standard streams it still holds, one line each ("3 socket cloexec",
// "5 /data/tarvo/heapdump/kestrel/log.txt cloexec"). The harness starts programs with nothing
// else open, so every descriptor listed is one the program opened. The report is taken as exit()
// is called, before static destructors run, or, when main returns instead, as this library is
// unloaded. The variable leaves the environment at start, so programs the tool starts report
// nothing.
#undef _FORTIFY_SOURCE
#include <ctype.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

namespace kestrel_test {
namespace {

// Where the report goes (null: no report asked for), and by which process. Never destroyed: the
// report is written while the process exits.
const std::string* g_path = nullptr;
pid_t g_pid = 0;

// Sockets and pipes show just that ("socket:[123]" loses the inode number, which changes from
// run to run), files their path; "cloexec" when the descriptor would not reach an exec'd program.
std::string describe(int fd) {
  char link[64], target[4096] = {};
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  std::string what = readlink(link, target, sizeof(target) - 1) > 0 ? target : "?";
  if (size_t at = what.find(":["); at != std::string::npos && isdigit(what[at + 2])) what.resize(at);
  if (fcntl(fd, F_GETFD) & FD_CLOEXEC) what += " cloexec";
  return what;
}

void write_report() {
  if (g_path == nullptr || getpid() != g_pid) return;
  g_pid = 0;  // written once
  std::string text;
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (const dirent* e = readdir(dir)) {
      const int fd = atoi(e->d_name);
      if (fd > 2 && fd != dirfd(dir)) text += std::to_string(fd) + " " + describe(fd) + "\n";
    }
    closedir(dir);
  }
  // A report that cannot be written is missing, which the tests count as a failure.
  int out = open(g_path->c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (out < 0) return;
  (void)!write(out, text.data(), text.size());
  close(out);
}

__attribute__((constructor)) void take_path() {
  const char* path = getenv("KESTREL_FD_REPORT");
  if (path == nullptr || *path == '\0') return;
  g_path = new std::string(path);
  g_pid = getpid();
  unsetenv("KESTREL_FD_REPORT");
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
