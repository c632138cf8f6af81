// SPDX-License-Identifier: Apache-2.0
// cmd_aging.cpp: the aging daemon. It snapshots /proc/meminfo, lays out its folders and logs
// under /data/tarvo/heapdump/, lets the kernel memory monitors start, and then relays every
// driver record into device.txt for ever, running the text of records tagged "cmd" in the shell.
#include "cmds/aging.h"

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <thread>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>

#include "cmds/cmds.h"
#include "libs/kestrel/logger.h"
#include "libs/kestrel/util.h"
#include "parse-options/parse-options.h"
#include "platform/log.h"

using tarvo::kestrel::logger::Entry;

namespace {

constexpr char kHeapdumpRoot[] = "/data/tarvo/heapdump/";
constexpr char kDaemonFolderName[] = "kestrel";
constexpr mode_t kFolderMode = 0777;
constexpr mode_t kFileMode = 0666;
// The folders are world-writable, so anyone can plant a link or a FIFO in them. Folders are
// walked one descriptor at a time and never through a link; files are opened relative to their
// folder, never through a link, without waiting (a FIFO with no reader would block the open for
// ever) and only when they turn out to be regular files.
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kAppendFlags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

const size_t g_page_size = getpagesize();

// The daemon reads /proc/meminfo once, but through a reader that could be called again.
MeminfoReader g_meminfo_reader;

android::base::unique_fd open_daemon_folder(const char* name);
int open_append(int folder, const char* name);
[[noreturn]] void listen_device();
void timer_thread();
int callback(const Entry* entry, void* arg);

}  // namespace

aging_state aging_data;

const meminfo_key kMeminfoKeys[kMeminfoKeyCount] = {
    {"MemTotal:", &meminfo::mem_total},
    {"MemFree:", &meminfo::mem_free},
    {"MemAvailable:", &meminfo::mem_available},
    {"Buffers:", &meminfo::buffers},
    {"Cached:", &meminfo::cached},
    {"SwapCached:", &meminfo::swap_cached},
    {"Active:", &meminfo::active},
    {"Inactive:", &meminfo::inactive},
    {"Active(anon):", &meminfo::active_anon},
    {"Inactive(anon):", &meminfo::inactive_anon},
    {"Active(file):", &meminfo::active_file},
    {"Inactive(file):", &meminfo::inactive_file},
    {"Unevictable:", &meminfo::unevictable},
    {"Mlocked:", &meminfo::mlocked},
    {"SwapTotal:", &meminfo::swap_total},
    {"SwapFree:", &meminfo::swap_free},
    {"Dirty:", &meminfo::dirty},
    {"Writeback:", &meminfo::writeback},
    {"AnonPages:", &meminfo::anon_pages},
    {"Mapped:", &meminfo::mapped},
    {"Shmem:", &meminfo::shmem},
    {"KReclaimable:", &meminfo::k_reclaimable},
    {"Slab:", &meminfo::slab},
    {"SReclaimable:", &meminfo::s_reclaimable},
    {"SUnreclaim:", &meminfo::s_unreclaim},
    {"KernelStack:", &meminfo::kernel_stack},
    {"ShadowCallStack:", &meminfo::shadow_call_stack},
    {"PageTables:", &meminfo::page_tables},
    {"NFS_Unstable:", &meminfo::nfs_unstable},
    {"Bounce:", &meminfo::bounce},
    {"WritebackTmp:", &meminfo::writeback_tmp},
    {"CommitLimit:", &meminfo::commit_limit},
    {"Committed_AS:", &meminfo::committed_as},
    {"VmallocTotal:", &meminfo::vmalloc_total},
    {"VmallocUsed:", &meminfo::vmalloc_used},
    {"VmallocChunk:", &meminfo::vmalloc_chunk},
    {"Percpu:", &meminfo::percpu},
    {"CmaTotal:", &meminfo::cma_total},
    {"CmaFree:", &meminfo::cma_free},
    {"IonTotalCache:", &meminfo::ion_total_cache},
    {"IonTotalUsed:", &meminfo::ion_total_used},
    {"GPUTotalUsed:", &meminfo::gpu_total_used},
};

int cmd_aging(int, const char**) {
  aging_data.driver_fd = tarvo::kestrel::util::KestrelFd();
  if (aging_data.driver_fd < 0) die("aging: kestrel dev does not exist");

  aging_data.mem = {};
  std::string_view content;
  if (!g_meminfo_reader.Read(&content) || !parse_meminfo(std::string(content), &aging_data.mem)) {
    die("aging: meminfo parse failed");
  }

  if (access(kHeapdumpRoot, R_OK | W_OK) != 0) {
    die("aging: daemon start failed, reason: %s", strerror(errno));
  }
  umask(0);
  if (!create_dir("")) die("aging: create folder failed, reason: %s", strerror(errno));
  if (!create_dir("/memleak")) die("aging: create memleak folder failed, reason: %s", strerror(errno));

  {
    android::base::unique_fd folder = open_daemon_folder("");
    aging_data.log_fd = folder == -1 ? -1 : open_append(folder.get(), "log.txt");
    if (aging_data.log_fd < 0) die("aging: create file failed, reason: %s", strerror(errno));
    aging_data.device_log_fd = open_append(folder.get(), "device.txt");
    if (aging_data.device_log_fd < 0) die("aging: create file failed, reason: %s", strerror(errno));
  }

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

bool parse_meminfo(const std::string& content, meminfo* mem) {
  for (const std::string& line : android::base::Split(content, "\n")) {
    if (line.empty()) continue;
    std::vector<std::string> words = android::base::Split(line, " ");
    std::erase(words, std::string());
    if (words.size() < 2) {
      aging_log(ANDROID_LOG_ERROR, "%s parse error", kProcMeminfo);
      return false;
    }
    for (const meminfo_key& k : kMeminfoKeys) {
      if (words[0] != k.key) continue;
      const char* number = words[1].c_str();
      char* end = nullptr;
      long long value = strtoll(number, &end, 10);
      if (end == number) {
        aging_log(ANDROID_LOG_ERROR, "%s parse error", kProcMeminfo);
        return false;
      }
      mem->*k.field = static_cast<uint64_t>(value);
      break;
    }
  }
  return true;
}

MeminfoReader::MeminfoReader(std::string path) : path_(std::move(path)), size_(g_page_size) {}

bool MeminfoReader::Read(std::string_view* content) {
  if (fd_ < 0) {
    if (!buf_) {
      buf_.reset(static_cast<char*>(malloc(size_)));
      if (!buf_) return false;
    }
    int fd;
    do {
      fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
      aging_log(ANDROID_LOG_ERROR, "%s open: %s", path_.c_str(), strerror(errno));
      return false;
    }
    fd_.reset(fd);
  }

  size_t length = 0;
  while (true) {
    if (!ReadAll(&length)) return false;
    if (length < size_ - 1) break;
    // The content filled the buffer, so there may be more: start over with twice the room.
    char* bigger = static_cast<char*>(realloc(buf_.get(), size_ * 2));
    if (!bigger) {
      errno = ENOMEM;
      return false;
    }
    buf_.release();
    buf_.reset(bigger);
    size_ *= 2;
  }
  buf_.get()[length] = '\0';
  *content = std::string_view(buf_.get(), length);
  return true;
}

// Reads from offset 0 until end of file or size - 1 bytes, whichever comes first.
bool MeminfoReader::ReadAll(size_t* length) {
  size_t total = 0;
  while (total < size_ - 1) {
    ssize_t n = pread(fd_.get(), buf_.get() + total, size_ - 1 - total, total);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      aging_log(ANDROID_LOG_ERROR, "%s read: %s", path_.c_str(), strerror(errno));
      fd_.reset();
      return false;
    }
    if (n == 0) break;
    total += n;
  }
  *length = total;
  return true;
}

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

  // localtime_r: the timer thread logs too, and localtime's result is shared.
  char stamp[32];
  time_t now = time(nullptr);
  struct tm local;
  localtime_r(&now, &local);
  strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);

  constexpr char kLetters[] = "VDIWEFS";
  char letter = priority >= ANDROID_LOG_VERBOSE && priority <= ANDROID_LOG_SILENT
                    ? kLetters[priority - ANDROID_LOG_VERBOSE]
                    : '?';
  // One formatted write per line: both threads log without a lock on an append descriptor.
  dprintf(aging_data.log_fd, "%s %c %s: %s\n", stamp, letter, tag, message);
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

int aging_open_file(const aging_mem_monitor* monitor, const char* file_name) {
  android::base::unique_fd folder = open_daemon_folder(monitor->name);
  return folder == -1 ? -1 : open_append(folder.get(), file_name);
}

namespace {

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

void timer_thread() {
  pthread_setname_np(pthread_self(), "kestrel-timer");
  constexpr struct timespec kTick = {.tv_sec = 30 * 60, .tv_nsec = 0};
  while (true) {
    struct timespec left = kTick;
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
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
    read_record(driver_fd, &record, nullptr);
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
