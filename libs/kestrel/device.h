// SPDX-License-Identifier: Apache-2.0
// Access to the kestrel driver: the process-wide descriptor of /dev/kestrel, the driver's
// interface version and the scene switch. Failures are logged; nothing is printed here.
#pragma once

namespace tarvo::kestrel::util {

// The cached read-only descriptor, opened on first use; -1 (logged) when it cannot be opened.
// A failed open is not remembered: the next call tries again.
int KestrelFd();

// Stores the driver's major and minor version and returns true; false leaves both untouched.
bool KestrelVersion(int& major, int& minor);

// Sets (set true) or clears one scene; only scenes 0 and 1 exist.
bool KestrelSetOrClearScene(unsigned long long scene, bool set);

// Issues one request on a driver descriptor, reissued while it is interrupted. The driver's
// answer, or -1 with errno set; nothing is logged here.
int KestrelRequest(int fd, unsigned long request, unsigned long arg);

}  // namespace tarvo::kestrel::util
