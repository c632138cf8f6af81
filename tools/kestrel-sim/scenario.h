// SPDX-License-Identifier: Apache-2.0
// The driver simulator's model of one device: what the scenario file asks for (or host mode's
// defaults), and the process records it answers the statistics requests with.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "libs/kestrel/driver.h"

namespace kestrel_sim {

using tarvo::kestrel::memstat::proc_ms;

// The calls a scenario can make fail or interrupt.
enum Call { kOpenRead, kOpenWrite, kGetVersion, kSetScene, kClearScene,
            kPidMemStat, kSizeMemStats, kUidMemStats, kCallKinds };

// One step of the log feeder: a record to send, or a pause.
struct FeedItem {
  int delay_ms = -1;        // >= 0: a pause, no record
  std::string record;       // header and payload, ready to send
  bool sec_now = false;     // stamp sec (and nsec unless given) when the record is sent
  bool nsec_given = false;
};

struct Scenario {
  bool present = true;
  int version = 0x10000;
  int fail_errno[kCallKinds] = {};
  bool eintr[kCallKinds] = {};
  std::string trace;
  std::vector<proc_ms> procs;
  bool host_procs = false;
  std::vector<FeedItem> feed;
  bool hold = false;
  // Shared by the processes of one run: records written to the device append here, and every
  // stream follows it after the scenario's own records.
  std::string log_file;
};

// Host mode: version 1.0, the host's processes, a log stream that stays open and stays silent.
Scenario host_scenario();

// Parses scenario text; on a bad line returns false with "line N: why" in *error.
bool parse_scenario(const std::string& text, Scenario* out, std::string* error);

// Copies into *out the figures of `full` whose bit is set in `flags`; pid always.
void apply_mask(const proc_ms& full, uint32_t flags, proc_ms* out);

// Reads the host's processes from /proc in pid order and writes up to `max` records with the
// figures `flags` asks for. With `uid` only that uid's processes, with `pid` >= 0 only that one.
// Returns the number written.
size_t collect_host_procs(uint32_t flags, const uint32_t* uid, int pid, proc_ms* out, size_t max);

}  // namespace kestrel_sim
