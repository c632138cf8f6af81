// SPDX-License-Identifier: Apache-2.0
// Runs a program as on a kernel without process_madvise: a seccomp filter makes the call fail
// with ENOSYS, and with --pidfd-open pidfd_open too (kernels before 5.3 lack both).
//
//   compact_nosys [--pidfd-open] [--own-entry] -- program args...
//
// --own-entry is for a sandbox whose /proc is a folder of plain files: it gives the program, which
// runs under this pid, an entry there (a status owned by root, a reclaim file that says
// "untouched"), also reached as /proc/own, for walks that must leave themselves out.
// Exit status 77 with a one-line reason: this machine cannot set that up.
#include <errno.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "platform/syscalls.h"

#if defined(__x86_64__)
constexpr unsigned kArch = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kArch = AUDIT_ARCH_AARCH64;
#else
#error "no seccomp architecture known for this machine"
#endif

[[noreturn]] static void cannot(const char* what) {
  fprintf(stderr, "compact_nosys: %s: %s\n", what, strerror(errno));
  exit(77);
}

static void own_entry() {
  const std::string entry = "/proc/" + std::to_string(getpid());
  if (mkdir(entry.c_str(), 0755) != 0) cannot(entry.c_str());
  if (symlink(std::to_string(getpid()).c_str(), "/proc/own") != 0) cannot("/proc/own");
  std::ofstream(entry + "/status") << "Name:\tkestrel\n";
  std::ofstream(entry + "/reclaim") << "untouched";
}

int main(int argc, char** argv) {
  const unsigned nosys = SECCOMP_RET_ERRNO | (ENOSYS & SECCOMP_RET_DATA);
  std::vector<sock_filter> prog = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArch, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_process_madvise, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, nosys),
  };
  int i = 1;
  for (; i < argc && strcmp(argv[i], "--") != 0; i++) {
    if (strcmp(argv[i], "--pidfd-open") == 0) {
      prog.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_pidfd_open, 0, 1));
      prog.push_back(BPF_STMT(BPF_RET | BPF_K, nosys));
    } else if (strcmp(argv[i], "--own-entry") == 0) {
      own_entry();
    } else {
      fprintf(stderr, "compact_nosys: unknown option %s\n", argv[i]);
      return 2;
    }
  }
  if (i + 1 >= argc) return 2;
  prog.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  sock_fprog fprog = {static_cast<unsigned short>(prog.size()), prog.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) cannot("no_new_privs");
  if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) != 0) cannot("seccomp filter");
  execv(argv[i + 1], argv + i + 1);
  fprintf(stderr, "compact_nosys: %s: %s\n", argv[i + 1], strerror(errno));
  return 127;
}
