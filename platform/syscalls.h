// SPDX-License-Identifier: Apache-2.0
// The process system calls of compaction, for every C library we build with: glibc has had
// wrappers since 2.36 and bionic since API level 31; elsewhere they go through syscall().
// Both return -1 and set errno on failure, ENOSYS included on kernels that lack them.
#pragma once

#include <stddef.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>

// Older kernel headers lack the numbers; both come from the kernel's generic table, which x86_64
// and arm64 share for these two.
#ifndef __NR_pidfd_open
#define __NR_pidfd_open 434
#endif
#ifndef __NR_process_madvise
#define __NR_process_madvise 440
#endif

namespace tarvo::kestrel::platform {

int pidfd_open(pid_t pid, unsigned int flags);

ssize_t process_madvise(int pidfd, const struct iovec* iov, size_t count, int advice,
                        unsigned int flags);

}  // namespace tarvo::kestrel::platform
