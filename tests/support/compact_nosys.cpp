// Runs a program as if on a kernel without process_madvise: a seccomp filter makes the call fail
// with ENOSYS, and with --pidfd-open pidfd_open too (kernels before 5.3 lack both).
//
//   compact_nosys [--pidfd-open] [--own-entry] -- program args...
//
// --own-entry is for a sandbox whose /proc is a folder of plain files: it gives the program's
// own process an entry there (status owned by root, cmdline, maps and an empty reclaim file)
// before the program starts under the same pid, for walks that must leave themselves out.
// Exit status 77 with a one-line reason: this machine cannot set that up.
#include <errno.h>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "platform/syscalls.h"

namespace {

constexpr int kCannot = 77;

#if defined(__x86_64__)
constexpr unsigned kArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kArch = AUDIT_ARCH_AARCH64;
#else
#error "no seccomp architecture known for this machine"
#endif

[[noreturn]] void cannot(const std::string& what) {
  fprintf(stderr, "compact_nosys: %s: %s\n", what.c_str(), strerror(errno));
  exit(kCannot);
}

void write_file(const std::string& path, const std::string& content) {
  FILE* f = fopen(path.c_str(), "we");
  if (f == nullptr) cannot(path);
  fwrite(content.data(), 1, content.size(), f);
  fclose(f);
}

void own_entry(const std::string& dir) {
  const std::string entry = dir + "/" + std::to_string(getpid());
  if (mkdir(entry.c_str(), 0755) != 0) cannot(entry);
  write_file(entry + "/status", "Name:\tkestrel\n");
  write_file(entry + "/cmdline", std::string("kestrel\0compact\0", 16));
  write_file(entry + "/maps", "10000000-10001000 rw-p 00000000 00:00 0\n");
  write_file(entry + "/reclaim", "");
}

void fail_with_enosys(bool pidfd_open_too) {
  const unsigned nosys = SECCOMP_RET_ERRNO | (ENOSYS & SECCOMP_RET_DATA);
  std::vector<sock_filter> prog = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_process_madvise, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, nosys),
  };
  if (pidfd_open_too) {
    prog.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_pidfd_open, 0, 1));
    prog.push_back(BPF_STMT(BPF_RET | BPF_K, nosys));
  }
  prog.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  sock_fprog fprog = {static_cast<unsigned short>(prog.size()), prog.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) cannot("no_new_privs");
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) != 0) cannot("seccomp filter");
}

}  // namespace

int main(int argc, char** argv) {
  bool pidfd_open_too = false, entry = false;
  int i = 1;
  for (; i < argc && strcmp(argv[i], "--") != 0; i++) {
    if (strcmp(argv[i], "--pidfd-open") == 0) {
      pidfd_open_too = true;
    } else if (strcmp(argv[i], "--own-entry") == 0) {
      entry = true;
    } else {
      fprintf(stderr, "compact_nosys: unknown option %s\n", argv[i]);
      return 2;
    }
  }
  if (i + 1 >= argc) {
    fprintf(stderr, "usage: compact_nosys [--pidfd-open] [--own-entry] -- program args...\n");
    return 2;
  }
  if (entry) own_entry("/proc");
  fail_with_enosys(pidfd_open_too);
  execv(argv[i + 1], argv + i + 1);
  fprintf(stderr, "compact_nosys: %s: %s\n", argv[i + 1], strerror(errno));
  return 127;
}
