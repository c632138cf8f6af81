// SPDX-License-Identifier: Apache-2.0
// cmd_aging.cpp: the aging daemon. It snapshots /proc/meminfo, lays out its folders and logs
// under /data/tarvo/heapdump/, lets the kernel memory monitors start, and then relays every
// driver record into device.txt for ever, running the text of records tagged "cmd" in the shell.
#include "cmds/aging_daemon.h"

#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include "cmds/aging_monitor.h"
#include "cmds/cmds.h"
#include "cmds/driver_log.h"
#include "libs/kestrel/logger.h"
#include "libs/kestrel/device.h"
#include "parse-options/parse-options.h"
#include "platform/log.h"

using tarvo::kestrel::logger::Entry;

namespace {


// The daemon reads /proc/meminfo once, but through a reader that could be called again.
MeminfoReader g_meminfo_reader;

[[noreturn]] void listen_device();
void timer_thread();
int callback(const Entry* entry, void* arg);

}  // namespace

int cmd_aging(int, const char**) {
  aging_data.driver_fd = tarvo::kestrel::util::KestrelFd();
  if (aging_data.driver_fd < 0) die("aging: kestrel dev does not exist");

  aging_data.mem = {};
  std::string_view content;
  if (!g_meminfo_reader.Read(&content)) {
    aging_log(ANDROID_LOG_ERROR, "%s", g_meminfo_reader.error().c_str());
    die("aging: meminfo parse failed");
  }
  if (!parse_meminfo(std::string(content), &aging_data.mem)) {
    aging_log(ANDROID_LOG_ERROR, "%s parse error", kProcMeminfo);
    die("aging: meminfo parse failed");
  }

  if (access(kHeapdumpRoot, R_OK | W_OK) != 0) {
    die("aging: daemon start failed, reason: %s", strerror(errno));
  }
  umask(0);
  if (!create_dir("")) die("aging: create folder failed, reason: %s", strerror(errno));
  if (!create_dir("/memleak")) die("aging: create memleak folder failed, reason: %s", strerror(errno));

  aging_data.log_fd = aging_open("log.txt");
  if (aging_data.log_fd < 0) die("aging: create file failed, reason: %s", strerror(errno));
  aging_data.device_log_fd = aging_open("device.txt");
  if (aging_data.device_log_fd < 0) die("aging: create file failed, reason: %s", strerror(errno));

  aging_log(ANDROID_LOG_INFO, "kestrel aging daemon start.");
  for (const meminfo_key& k : kMeminfoKeys) {
    aging_log(ANDROID_LOG_INFO, "%s %lu kB", k.key, static_cast<unsigned long>(aging_data.mem.*k.field));
  }

  aging_dmabuf_probe(&aging_data.mem);
  aging_slab_probe(&aging_data.mem);
  aging_vmalloc_probe(&aging_data.mem);

  std::thread(timer_thread).detach();
  listen_device();
}

namespace {

void timer_thread() {
  pthread_setname_np(pthread_self(), "kestrel-timer");
  constexpr struct timespec kTick = {.tv_sec = 30 * 60, .tv_nsec = 0};
  while (true) {
    struct timespec left = kTick;
    TEMP_FAILURE_RETRY(nanosleep(&left, &left));
    aging_log(ANDROID_LOG_INFO, "timer enter");
  }
}

void listen_device() {
  using namespace tarvo::kestrel::logger;
  const int driver_fd = aging_data.driver_fd;
  const int device_log_fd = aging_data.device_log_fd;
  // Zeroed once: a failed read hands on what the buffer holds, the previous record or nothing.
  static RecordBuffer record = {};
  while (true) {
    next_record_or_die(driver_fd, kNoTimeout, &record);
    kestrel_logger_print(FORMAT_DEFAULT, device_log_fd, record.entry(), callback, nullptr);
  }
}

// Runs the message of every record tagged exactly "cmd" through the shell, unchecked and with
// the daemon's privileges: whatever can put such a record into the driver's log runs commands.
int callback(const Entry* entry, void*) {
  if (strcmp(entry->tag, "cmd") != 0) return 0;
  aging_log(ANDROID_LOG_INFO, "cmd %s", entry->message);
  [[maybe_unused]] int status = system(entry->message);
  return 0;
}

}  // namespace
