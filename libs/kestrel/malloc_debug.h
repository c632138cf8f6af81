// SPDX-License-Identifier: Apache-2.0
// The requests of malloc-debug, shared by the command that sends them and the allocator hook that
// answers them: one real-time signal whose integer value names the request.
#pragma once

#include <signal.h>

namespace tarvo::kestrel::malloc_debug {

enum Request {
  kEnable = 0,
  kDump = 1,
  kDisable = 2,
  kStat = 3,
  kPurge = 4,
  kPurgeAll = 5,
};

// The signal number is fixed between the tool and the allocator hook.
inline int request_signal() { return __libc_current_sigrtmax() - 19; }

}  // namespace tarvo::kestrel::malloc_debug
