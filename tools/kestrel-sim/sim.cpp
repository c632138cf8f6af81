// SPDX-License-Identifier: Apache-2.0
// The driver simulator: preloaded into a program, it answers /dev/kestrel as the kestrel driver
// would, from the scenario file named by KESTREL_SIM_SCENARIO or, without one, from the host
// itself. Every other open and ioctl goes on to the C library untouched.
//
// The read-only device is one end of a SOCK_SEQPACKET socket pair: a feeder thread writes one
// log record per packet into the other end, so each read() returns exactly one record and
// select() works as on the device. The write-only device is an eventfd that takes ioctls; with a
// shared log file, records written to it go to that file, which every stream follows, so the
// records of one simulated process reach the readers in another.
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/kestrel-sim/scenario.h"

namespace kestrel_sim {
namespace {

namespace driver = tarvo::kestrel::driver;
using tarvo::kestrel::memstat::proc_pid_ms;
using tarvo::kestrel::memstat::proc_size_msu;

struct Device {
  std::mutex mu;
  bool loaded = false;
  std::string source;  // scenario path and text the model was built from
  Scenario sc;
  bool eintr_spent[kCallKinds] = {};
  std::vector<int> fds;  // descriptors handed out
  bool fed = false;      // the scenario's records went to the first stream
};

// Never destroyed: the feeder thread and late callers may use it while the process exits.
Device& device() {
  static Device* d = new Device;
  return *d;
}

template <typename F>
F next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

[[noreturn]] void fatal(const std::string& what) {
  std::string line = "kestrel-sim: " + what + "\n";
  (void)!write(2, line.data(), line.size());
  _exit(125);
}

bool read_file(const char* path, std::string* text) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[4096];
  ssize_t n;
  while ((n = read(fd, buf, sizeof(buf))) > 0) text->append(buf, static_cast<size_t>(n));
  close(fd);
  return n == 0;
}

// The scenario is read again on every open until a descriptor has been handed out, but an
// unchanged file keeps its state, so an injected EINTR is spent only once.
void load(Device& d) {
  const char* path = getenv("KESTREL_SIM_SCENARIO");
  std::string source;
  if (path != nullptr && *path != '\0') {
    std::string text;
    if (!read_file(path, &text)) fatal(std::string("cannot read ") + path + ": " + strerror(errno));
    source = std::string(path) + '\0' + text;
  }
  if (d.loaded && source == d.source) return;
  if (source.empty()) {
    d.sc = host_scenario();
  } else {
    std::string why;
    if (!parse_scenario(source.substr(strlen(path) + 1), &d.sc, &why)) fatal(std::string(path) + ": " + why);
  }
  d.source = std::move(source);
  d.loaded = true;
  std::fill(std::begin(d.eintr_spent), std::end(d.eintr_spent), false);
}

void trace(const Scenario& sc, const std::string& line) {
  if (sc.trace.empty()) return;
  int fd = open(sc.trace.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) fatal("cannot write trace " + sc.trace + ": " + strerror(errno));
  std::string text = line + "\n";
  (void)!write(fd, text.data(), text.size());
  close(fd);
}

// The errno a scenario injects into this call, or 0.
int injected(Device& d, Call call) {
  if (d.sc.eintr[call] && !d.eintr_spent[call]) {
    d.eintr_spent[call] = true;
    return EINTR;
  }
  return d.sc.fail_errno[call];
}

// The write descriptors whose records go to the shared log file. A lock of their own, not the
// device's: write() and close() come here from inside the simulator too.
struct LogWriters {
  std::mutex mu;
  std::vector<int> fds;
  std::string path;
};
LogWriters& log_writers() {
  static LogWriters* w = new LogWriters;
  return *w;
}
// Set once a writer is handed out: until then write() and close() pass straight through.
std::atomic<bool> g_log_writers{false};

// Sends the shared log file's records from its start, then each one as it is appended, until
// the reader has gone. A record whose tail is still being written is taken on a later pass.
void follow_log_file(const std::string& path, int sock) {
  int fd = open(path.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) fatal("cannot read log file " + path + ": " + strerror(errno));
  std::string record;
  off_t at = 0;
  for (;;) {
    uint16_t len;
    if (pread(fd, &len, sizeof(len), at) == sizeof(len)) {
      record.resize(sizeof(tarvo::kestrel::logger::user_logger_entry_compat) + len);
      if (pread(fd, record.data(), record.size(), at) == static_cast<ssize_t>(record.size())) {
        if (send(sock, record.data(), record.size(), MSG_NOSIGNAL) < 0) break;
        at += static_cast<off_t>(record.size());
        continue;
      }
    }
    timespec pause = {0, 10 * 1000000L};
    nanosleep(&pause, nullptr);
  }
  close(fd);
}

void feed_records(std::vector<FeedItem> feed, int fd, bool hold, std::string log_file) {
  for (FeedItem& item : feed) {
    if (item.delay_ms >= 0) {
      timespec pause = {item.delay_ms / 1000, (item.delay_ms % 1000) * 1000000L};
      while (nanosleep(&pause, &pause) < 0 && errno == EINTR) {
      }
      continue;
    }
    if (item.sec_now) {
      timespec now;
      clock_gettime(CLOCK_REALTIME, &now);
      int64_t sec = now.tv_sec, nsec = now.tv_nsec;
      memcpy(item.record.data() + 16, &sec, sizeof(sec));
      if (!item.nsec_given) memcpy(item.record.data() + 24, &nsec, sizeof(nsec));
    }
    // The reader has gone away: nothing more to do.
    if (send(fd, item.record.data(), item.record.size(), MSG_NOSIGNAL) < 0) {
      close(fd);
      return;
    }
  }
  if (!log_file.empty()) follow_log_file(log_file, fd);
  if (!hold || !log_file.empty()) close(fd);
}

int open_stream(Device& d, int flags) {
  int sv[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) < 0) return -1;
  if (!(flags & O_CLOEXEC)) fcntl(sv[0], F_SETFD, 0);
  if (flags & O_NONBLOCK) fcntl(sv[0], F_SETFL, O_NONBLOCK);
  std::vector<FeedItem> feed;
  if (!d.fed) feed = d.sc.feed;
  d.fed = true;
  if (feed.empty() && d.sc.log_file.empty()) {
    if (!d.sc.hold) close(sv[1]);
    return sv[0];
  }
  // The feeder takes no signal meant for the program.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  std::thread(feed_records, std::move(feed), sv[1], d.sc.hold, d.sc.log_file).detach();
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  return sv[0];
}

int device_open(int flags) {
  static const char* const kModes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "O_ACCMODE"};
  Device& d = device();
  std::lock_guard<std::mutex> lock(d.mu);
  if (d.fds.empty()) load(d);
  bool read_only = (flags & O_ACCMODE) == O_RDONLY;
  trace(d.sc, std::string("open ") + kModes[flags & O_ACCMODE]);
  int err = injected(d, read_only ? kOpenRead : kOpenWrite);
  if (err == 0 && !d.sc.present) err = ENOENT;
  if (err != 0) {
    errno = err;
    return -1;
  }
  int fd = read_only ? open_stream(d, flags) : eventfd(0, (flags & O_CLOEXEC) ? EFD_CLOEXEC : 0);
  if (fd >= 0) d.fds.push_back(fd);
  if (fd >= 0 && !read_only && !d.sc.log_file.empty()) {
    LogWriters& w = log_writers();
    std::lock_guard<std::mutex> writers_lock(w.mu);
    w.fds.push_back(fd);
    w.path = d.sc.log_file;
    g_log_writers.store(true);
  }
  return fd;
}

// A write of one record to the device, as the driver takes it: the payload (priority, tag, zero
// byte, message) of 3 to 4044 bytes, stamped with the writer's pid, tid and the time and appended
// to the shared log file in one write. False when `fd` is not a device writer.
bool driver_write(int fd, const void* buf, size_t n, ssize_t* ret) {
  std::string path;
  {
    LogWriters& w = log_writers();
    std::lock_guard<std::mutex> lock(w.mu);
    if (std::find(w.fds.begin(), w.fds.end(), fd) == w.fds.end()) return false;
    path = w.path;
  }
  const char* payload = static_cast<const char*>(buf);
  *ret = -1;
  if (n < 3 || n > tarvo::kestrel::logger::kMaxPayload || memchr(payload + 1, '\0', n - 1) == nullptr) {
    errno = EINVAL;
    return true;
  }
  tarvo::kestrel::logger::user_logger_entry_compat head = {};
  head.len = static_cast<uint16_t>(n);
  head.pid = getpid();
  head.tid = gettid();
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  head.sec = now.tv_sec;
  head.nsec = now.tv_nsec;
  std::string record(reinterpret_cast<const char*>(&head), sizeof(head));
  record.append(payload, n);
  int log = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (log < 0) fatal("cannot write log file " + path + ": " + strerror(errno));
  // O_APPEND places each record whole at the end, whichever process writes it.
  if (write(log, record.data(), record.size()) == static_cast<ssize_t>(record.size())) {
    *ret = static_cast<ssize_t>(n);
  }
  close(log);
  return true;
}

// A closed writer's number may come back for any file.
void forget_writer(int fd) {
  LogWriters& w = log_writers();
  std::lock_guard<std::mutex> lock(w.mu);
  std::erase(w.fds, fd);
}

// Scenario processes first, then the host's, up to `max`.
uint32_t fill_table(const Scenario& sc, uint32_t flags, const uint32_t* uid, proc_ms* out,
                    uint32_t max) {
  uint32_t n = 0;
  for (const proc_ms& p : sc.procs) {
    if (n == max) break;
    if (uid == nullptr || static_cast<uint32_t>(p.uid) == *uid) apply_mask(p, flags, &out[n++]);
  }
  if (sc.host_procs && n < max) n += collect_host_procs(flags, uid, -1, out + n, max - n);
  return n;
}

bool find_proc(const Scenario& sc, uint32_t flags, int pid, proc_ms* out) {
  for (const proc_ms& p : sc.procs) {
    if (p.pid == pid) {
      apply_mask(p, flags, out);
      return true;
    }
  }
  return sc.host_procs && pid > 0 && collect_host_procs(flags, nullptr, pid, out, 1) == 1;
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  char buf[128];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  return buf;
}

// Answers a driver request on one of our descriptors; false when `fd` is not ours.
bool driver_ioctl(int fd, unsigned long request, void* arg, int* ret) {
  Device& d = device();
  std::lock_guard<std::mutex> lock(d.mu);
  if (std::find(d.fds.begin(), d.fds.end(), fd) == d.fds.end()) return false;
  Call call;
  std::string line;
  auto* scene = static_cast<driver::scene_request*>(arg);
  auto* one = static_cast<proc_pid_ms*>(arg);
  auto* table = static_cast<proc_size_msu*>(arg);
  switch (request) {
    case driver::kGetVersion:
      call = kGetVersion;
      line = "0xFA01";
      break;
    case driver::kSetScene:
    case driver::kClearScene:
      call = request == driver::kSetScene ? kSetScene : kClearScene;
      if (arg == nullptr) break;
      line = format("0x%lX scene=%llu", request, static_cast<unsigned long long>(scene->scene));
      break;
    case driver::kPidMemStat:
      call = kPidMemStat;
      if (arg == nullptr) break;
      line = format("0xFB01 flags=0x%x pid=%d", one->flags, one->pid);
      break;
    case driver::kSizeMemStats:
      call = kSizeMemStats;
      if (arg == nullptr) break;
      line = format("0xFB02 flags=0x%x count=%u", table->flags, table->count);
      break;
    default:
      call = kUidMemStats;
      if (arg == nullptr) break;
      line = format("0xFB03 flags=0x%x uid=%u count=%u", table->flags, table->uid, table->count);
      break;
  }
  *ret = -1;
  if (line.empty()) {
    trace(d.sc, format("0x%lX null argument", request));
    errno = EFAULT;
    return true;
  }
  trace(d.sc, line);
  if (int err = injected(d, call)) {
    errno = err;
    return true;
  }
  switch (call) {
    case kGetVersion:
      *ret = d.sc.version;
      break;
    case kPidMemStat:
      if (!find_proc(d.sc, one->flags, one->pid, &one->ms)) {
        errno = ESRCH;
        return true;
      }
      *ret = 0;
      break;
    case kSizeMemStats:
      table->count = fill_table(d.sc, table->flags, nullptr, table->ms, table->count);
      *ret = 0;
      break;
    case kUidMemStats:
      table->count = fill_table(d.sc, table->flags, &table->uid, table->ms, table->count);
      *ret = 0;
      break;
    default:
      *ret = 0;
      break;
  }
  return true;
}

bool is_driver_request(unsigned long request) {
  return (request >= driver::kGetVersion && request <= driver::kClearScene) ||
         (request >= driver::kPidMemStat && request <= driver::kUidMemStats);
}

bool is_device(const char* path) { return path != nullptr && strcmp(path, driver::kDevicePath) == 0; }

bool takes_mode(int flags) { return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE; }

}  // namespace
}  // namespace kestrel_sim

using kestrel_sim::device_open;
using kestrel_sim::is_device;
using kestrel_sim::next;

// The mode argument exists only with O_CREAT or O_TMPFILE.
#define KESTREL_SIM_MODE(flags, last)      \
  mode_t mode = 0;                         \
  if (kestrel_sim::takes_mode(flags)) {    \
    va_list ap;                            \
    va_start(ap, last);                    \
    mode = va_arg(ap, mode_t);             \
    va_end(ap);                            \
  }

extern "C" {

int __open_2(const char* path, int flags);
int __open64_2(const char* path, int flags);
int __openat_2(int dirfd, const char* path, int flags);
int __openat64_2(int dirfd, const char* path, int flags);

int open(const char* path, int flags, ...) {
  if (is_device(path)) return device_open(flags);
  KESTREL_SIM_MODE(flags, flags);
  static auto real = next<int (*)(const char*, int, ...)>("open");
  return real(path, flags, mode);
}

int open64(const char* path, int flags, ...) {
  if (is_device(path)) return device_open(flags);
  KESTREL_SIM_MODE(flags, flags);
  static auto real = next<int (*)(const char*, int, ...)>("open64");
  return real(path, flags, mode);
}

int openat(int dirfd, const char* path, int flags, ...) {
  if (is_device(path)) return device_open(flags);
  KESTREL_SIM_MODE(flags, flags);
  static auto real = next<int (*)(int, const char*, int, ...)>("openat");
  return real(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
  if (is_device(path)) return device_open(flags);
  KESTREL_SIM_MODE(flags, flags);
  static auto real = next<int (*)(int, const char*, int, ...)>("openat64");
  return real(dirfd, path, flags, mode);
}

int __open_2(const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  static auto real = next<int (*)(const char*, int)>("__open_2");
  return real(path, flags);
}

int __open64_2(const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  static auto real = next<int (*)(const char*, int)>("__open64_2");
  return real(path, flags);
}

int __openat_2(int dirfd, const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  static auto real = next<int (*)(int, const char*, int)>("__openat_2");
  return real(dirfd, path, flags);
}

int __openat64_2(int dirfd, const char* path, int flags) {
  if (is_device(path)) return device_open(flags);
  static auto real = next<int (*)(int, const char*, int)>("__openat64_2");
  return real(dirfd, path, flags);
}

ssize_t write(int fd, const void* buf, size_t n) {
  ssize_t ret;
  if (kestrel_sim::g_log_writers.load() && kestrel_sim::driver_write(fd, buf, n, &ret)) return ret;
  static auto real = next<ssize_t (*)(int, const void*, size_t)>("write");
  return real(fd, buf, n);
}

int close(int fd) {
  if (kestrel_sim::g_log_writers.load()) kestrel_sim::forget_writer(fd);
  static auto real = next<int (*)(int)>("close");
  return real(fd);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  int ret;
  if (kestrel_sim::is_driver_request(request) && kestrel_sim::driver_ioctl(fd, request, arg, &ret)) {
    return ret;
  }
  static auto real = next<int (*)(int, unsigned long, ...)>("ioctl");
  return real(fd, request, arg);
}

}  // extern "C"
