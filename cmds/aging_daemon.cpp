// SPDX-License-Identifier: Apache-2.0
// aging_daemon.cpp: the services the aging daemon and its monitors share: the global record,
// the daemon log, the folders under /data/tarvo/heapdump/kestrel and the monitor registry.
#include "cmds/aging_daemon.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>

#include <android-base/stringprintf.h>

#include "libs/kestrel/kit.h"
#include "parse-options/parse-options.h"
#include "platform/log.h"

namespace kit = tarvo::kestrel::kit;

namespace {

constexpr char kDaemonFolder[] = "/data/tarvo/heapdump/kestrel";
constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0666;
// The folders are world-writable; O_NOFOLLOW keeps a link planted there from turning the
// daemon's appends into writes to some other file.
constexpr int kAppendFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW;

}  // namespace

aging_state aging_data;

void aging_log(int priority, const char* format, ...) {
  int saved_errno = errno;
  std::string message;
  va_list ap;
  va_start(ap, format);
  android::base::StringAppendV(&message, format, ap);
  va_end(ap);
  __android_log_print(priority, kAgingTag, "%s", message.c_str());
  log_to_file(priority, kAgingTag, "%s", message.c_str());
  errno = saved_errno;
}

void log_to_file(int priority, const char* tag, const char* format, ...) {
  if (aging_data.log_fd < 0) return;

  char message[1024];
  va_list ap;
  va_start(ap, format);
  vsnprintf(message, sizeof(message), format, ap);
  va_end(ap);

  char stamp[32];
  kit::local_time(time(nullptr), "%m-%d %H:%M:%S", stamp, sizeof(stamp));
  // One formatted write per line: both threads log without a lock on an append descriptor.
  dprintf(aging_data.log_fd, "%s %c %s: %s\n", stamp, kit::priority_letter(priority), tag,
          message);
}

bool create_dir(const char* name) {
  std::string path = android::base::StringPrintf("%s/%s", kDaemonFolder, name);
  if (mkdir(path.c_str(), kFolderMode) != 0 && errno != EEXIST) {
    die("aging: create folder failed, reason: %s", strerror(errno));
  }
  return true;
}

int aging_regist_monitor(aging_mem_monitor* monitor) {
  if (!create_dir(monitor->name)) return -EINVAL;
  aging_data.monitors.push_back(monitor);
  return 0;
}

int aging_open(const std::string& name) {
  std::string path = android::base::StringPrintf("%s/%s", kDaemonFolder, name.c_str());
  return open(path.c_str(), kAppendFlags, kFileMode);
}

int aging_open_file(const aging_mem_monitor* monitor, const char* file_name) {
  return aging_open(android::base::StringPrintf("%s/%s", monitor->name, file_name));
}

