// Allocator parameters: the public ones every libc knows by name, and bionic's own, which other
// C libraries lack; on those the stand-in answers like an allocator that ignores the request.
#pragma once

namespace tarvo::kestrel::platform {

inline constexpr int kDecayTime = -100;   // M_DECAY_TIME
inline constexpr int kPurge = -101;       // M_PURGE
inline constexpr int kPurgeAll = -104;    // M_PURGE_ALL
inline constexpr int kLogStats = -205;    // M_LOG_STATS

// mallopt on this platform's allocator; parameters it does not know return 0.
int allocator_option(int param, int value);

}  // namespace tarvo::kestrel::platform
