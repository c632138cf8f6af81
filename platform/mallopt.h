// SPDX-License-Identifier: Apache-2.0
// Allocator parameters: bionic's public ones, known by name on a device, which other C libraries
// lack; there the call still goes to the allocator, which answers as it does for any unknown
// parameter.
#pragma once

namespace tarvo::kestrel::platform {

inline constexpr int kDecayTime = -100;   // M_DECAY_TIME
inline constexpr int kPurge = -101;       // M_PURGE
inline constexpr int kPurgeAll = -104;    // M_PURGE_ALL
inline constexpr int kLogStats = -205;    // M_LOG_STATS

// mallopt on this platform's allocator. What an unknown parameter returns is the allocator's
// business: glibc answers 1, AddressSanitizer's allocator 0.
int allocator_option(int param, int value);

}  // namespace tarvo::kestrel::platform
