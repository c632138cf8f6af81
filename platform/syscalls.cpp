// SPDX-License-Identifier: Apache-2.0
// Wrappers of pidfd_open and process_madvise: the C library's where it has them, else the raw
// system call.
#include "platform/syscalls.h"

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#if defined(__BIONIC__)
#define KESTREL_LIBC_HAS_PROCESS_CALLS (__ANDROID_API__ >= 31)
#elif defined(__GLIBC__)
#define KESTREL_LIBC_HAS_PROCESS_CALLS (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 36))
#else
#define KESTREL_LIBC_HAS_PROCESS_CALLS 0
#endif

#if KESTREL_LIBC_HAS_PROCESS_CALLS && defined(__GLIBC__)
// glibc's sys/pidfd.h declares its functions without C linkage; its own includes come first so
// that only the declarations fall inside the block.
#include <fcntl.h>
#include <signal.h>
extern "C" {
#include <sys/pidfd.h>
}
#elif KESTREL_LIBC_HAS_PROCESS_CALLS
#include <sys/pidfd.h>
#endif

namespace tarvo::kestrel::platform {

int pidfd_open(pid_t pid, unsigned int flags) {
#if KESTREL_LIBC_HAS_PROCESS_CALLS
  return ::pidfd_open(pid, flags);
#else
  return static_cast<int>(syscall(__NR_pidfd_open, pid, flags));
#endif
}

ssize_t process_madvise(int pidfd, const struct iovec* iov, size_t count, int advice,
                        unsigned int flags) {
#if KESTREL_LIBC_HAS_PROCESS_CALLS
  return ::process_madvise(pidfd, iov, count, advice, flags);
#else
  return static_cast<ssize_t>(syscall(__NR_process_madvise, pidfd, iov, count, advice, flags));
#endif
}

}  // namespace tarvo::kestrel::platform
