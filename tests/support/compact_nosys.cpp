// SPDX-License-Identifier: Apache-2.0
// Runs a program as on a kernel without process_madvise: a seccomp filter makes the call fail
// with ENOSYS, and with --pidfd-open pidfd_open too (kernels before 5.3 lack both).
//
//   compact_nosys [--pidfd-open] -- program args...
#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <vector>

#include "platform/syscalls.h"

int main(int argc, char** argv) {
  // The program is built for this machine, so no other architecture's call numbers can reach
  // the filter and it need not check the architecture.
  const unsigned nosys = SECCOMP_RET_ERRNO | (ENOSYS & SECCOMP_RET_DATA);
  std::vector<sock_filter> prog = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_process_madvise, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, nosys),
  };
  int i = 1;
  for (; i < argc && strcmp(argv[i], "--") != 0; i++) {
    if (strcmp(argv[i], "--pidfd-open") == 0) {
      prog.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_pidfd_open, 0, 1));
      prog.push_back(BPF_STMT(BPF_RET | BPF_K, nosys));
    }
  }
  if (i + 1 >= argc) return 2;
  prog.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  sock_fprog fprog = {static_cast<unsigned short>(prog.size()), prog.data()};
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) != 0) {
    perror("compact_nosys: seccomp filter");
    return 1;
  }
  execv(argv[i + 1], argv + i + 1);
  perror(argv[i + 1]);
  return 1;
}
