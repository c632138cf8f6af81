// SPDX-License-Identifier: Apache-2.0
// Per-process memory figures: one driver request per process, per uid or for the first N
// processes of the system, completed from /proc/<pid>/smaps for the figures the driver does not
// compute (pss, Java heap, native heap). Failures are logged; nothing is printed here.
#pragma once

#include <stddef.h>

#include <string>

#include "libs/kestrel/driver.h"

namespace tarvo::kestrel::memstat {

// The largest table the system request may ask for.
inline constexpr unsigned long kMaxSizeMemStats = 400;

// Owns the buffers that travel through the driver requests. The caller sets `capacity` before the
// first request; the records of the last request stay readable in place until the next one or
// until the helper is destroyed. The descriptor is the process-wide one and is not closed here.
struct ProcMemStatHelper {
  int fd = -1;
  proc_pid_ms* pid_ms = nullptr;
  proc_size_msu* size_msu = nullptr;
  int capacity = 0;

  ProcMemStatHelper() = default;
  ~ProcMemStatHelper();
  ProcMemStatHelper(const ProcMemStatHelper&) = delete;
  ProcMemStatHelper& operator=(const ProcMemStatHelper&) = delete;

  // Takes the driver descriptor and allocates whichever buffer is missing; buffers that exist are
  // kept, so it may run before every request.
  bool Init();
};

class ProcMemStat {
 public:
  // One process, into helper.pid_ms.
  static bool PidMemStat(ProcMemStatHelper& helper, unsigned flags, int pid);
  // Up to `size` (1..400) processes of the system, into helper.size_msu.
  static bool SizeMemStats(ProcMemStatHelper& helper, unsigned flags, unsigned long size);
  // The processes of one uid, up to helper.capacity, into helper.size_msu.
  static bool UidSizeMemStats(ProcMemStatHelper& helper, unsigned flags, unsigned uid);
};

// The smaps walk: adds the Pss and SwapPss of every mapping to ms->pss and, when the mask asks
// for them, to ms->native_heap or ms->java_heap by the mapping's name. Never clears a counter.
// An empty path means /proc/<pid>/smaps. False (errno set) only when the file cannot be opened.
bool iterate_vma(int pid, int flags, proc_ms* ms, const std::string& smaps_path = "");

// One smaps line cut into its key and the offset of its value, exactly as sscanf("%63s %n")
// would: leading white space skipped, the key at most 63 characters, then the white space after
// it. False when the line holds no key. Public for the test that holds it to sscanf.
struct SmapsKey {
  const char* key;  // points into the line; not terminated
  size_t len;       // 1..63
  size_t value;     // offset in the line of the text after the key and its white space
};
bool scan_smaps_key(const char* line, SmapsKey* out);

}  // namespace tarvo::kestrel::memstat
