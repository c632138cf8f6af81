// SPDX-License-Identifier: Apache-2.0
// The aging daemon's services, used by the daemon itself and by its kernel memory monitors: the
// daemon's one global record, its log (mirrored into /data/tarvo/heapdump/kestrel/log.txt), its
// folders and report files, and the registry of monitors.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "libs/kestrel/proc-meminfo.h"

inline constexpr char kAgingTag[] = "kestrel-aging";
inline constexpr char kHeapdumpRoot[] = "/data/tarvo/heapdump/";

struct aging_mem_monitor;
using aging_monitor_handler = int (*)(aging_mem_monitor* monitor, meminfo* mem);

// One kernel memory monitor. Its name is also the name of its folder under the daemon folder;
// the first field of every state record behind `data` is the 64-bit usage it last saw.
struct aging_mem_monitor {
  const char* name;
  aging_monitor_handler handler;
  void* data;
};

// The daemon's one global record. Written during start-up only, before the timer thread runs.
struct aging_state {
  int32_t log_fd = -1;
  int32_t device_log_fd = 0;
  int32_t driver_fd = -1;
  std::vector<aging_mem_monitor*> monitors;
  meminfo mem = {};
};
extern aging_state aging_data;

// Sends one message to the Android log and then, with the same priority, tag and text, to the
// daemon log. errno is kept, so a caller can report it again afterwards.
void aging_log(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Appends one time-stamped line to the daemon log; does nothing before the log is open.
void log_to_file(int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Makes /data/tarvo/heapdump/kestrel/<name>; an existing folder is fine. Any other failure ends
// the program, so the result is always true.
bool create_dir(const char* name);

// Makes the monitor's folder and adds it to aging_data.monitors; -EINVAL on failure.
int aging_regist_monitor(aging_mem_monitor* monitor);

// Opens <daemon folder>/<name> for appending, creating it; negative on failure. The caller
// closes it.
int aging_open(const std::string& name);

// Opens <daemon folder>/<monitor name>/<file_name> the same way.
int aging_open_file(const aging_mem_monitor* monitor, const char* file_name);

