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
#include <android-base/unique_fd.h>

#include "libs/kestrel/kit.h"
#include "parse-options/parse-options.h"
#include "platform/log.h"

namespace kit = tarvo::kestrel::kit;

namespace {

constexpr char kDaemonFolderName[] = "kestrel";
constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0666;
// The folders are world-writable, so anyone can plant a link or a FIFO in them. Folders are
// walked one descriptor at a time and never through a link; files are opened relative to their
// folder, never through a link, without waiting (a FIFO with no reader would block the open for
// ever) and only when they turn out to be regular files.
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kAppendFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

// /data/tarvo/heapdump/kestrel, or the folder `name` in it; -1 with errno when any step is
// missing, a link or not a folder. The heapdump root is the device's own and is trusted.
android::base::unique_fd open_daemon_folder(const char* name) {
  android::base::unique_fd root(open(kHeapdumpRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (root == -1) return root;
  android::base::unique_fd daemon(openat(root.get(), kDaemonFolderName, kFolderFlags));
  if (daemon == -1 || *name == '\0') return daemon;
  return android::base::unique_fd(openat(daemon.get(), name, kFolderFlags));
}

// Opens `name` in `folder` for appending; -1 with errno unless it is a regular file.
int open_append(int folder, const char* name) {
  android::base::unique_fd fd(openat(folder, name, kAppendFlags, kFileMode));
  struct stat st;
  if (fd == -1 || fstat(fd.get(), &st) != 0) return -1;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return -1;
  }
  return fd.release();
}

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
  while (*name == '/') ++name;  // callers write "/memleak"
  // The daemon folder itself is made in the heapdump root, the others in the daemon folder.
  android::base::unique_fd parent(*name == '\0' ? open(kHeapdumpRoot, O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                                : open_daemon_folder("").release());
  const char* leaf = *name == '\0' ? kDaemonFolderName : name;
  // An existing entry is used only if it is a folder and not a link to one.
  if (parent == -1 || (mkdirat(parent.get(), leaf, kFolderMode) != 0 && errno != EEXIST) ||
      android::base::unique_fd(openat(parent.get(), leaf, kFolderFlags)) == -1) {
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
  android::base::unique_fd folder = open_daemon_folder("");
  return folder == -1 ? -1 : open_append(folder.get(), name.c_str());
}

int aging_open_file(const aging_mem_monitor* monitor, const char* file_name) {
  android::base::unique_fd folder = open_daemon_folder(monitor->name);
  return folder == -1 ? -1 : open_append(folder.get(), file_name);
}
