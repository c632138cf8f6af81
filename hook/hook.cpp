// SPDX-License-Identifier: Apache-2.0
// The malloc hook's life in its process: at load it takes the request signal and starts a worker
// thread; the signal handler only passes the request value down a pipe, and the worker answers
// it (enable, dump, disable, allocator statistics, purge) through the driver's log.
#include "hook/hook.h"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <inttypes.h>
#include <link.h>
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "hook/report.h"

namespace kestrel_hook {

__thread int t_in_hook __attribute__((tls_model("initial-exec"))) = 0;
std::atomic<bool> g_worker_missing{false};

namespace {

// The bound: 64 x 4096 slots of 24 bytes for blocks (6 MiB), at most three quarters used, so
// 196608 live blocks; 16 x 1024 backtraces of 288 bytes (4.5 MiB), at most 12288. Past either
// limit a new block is counted as not recorded, or filed under "no backtrace".
constinit Recorder g_recorder(4096, 1024);

// Request values travel from the signal handler to the worker through this pipe. The write end
// is non-blocking: when the pipe is full the request is dropped rather than the handler stuck.
std::atomic<int> g_pipe_read{-1};
std::atomic<int> g_pipe_write{-1};

// The hook's own code, whose frames a backtrace leaves out.
uintptr_t g_text_start = 0, g_text_end = 0;

void on_request_signal(int, siginfo_t* info, void*) {
  // Only sigqueue() carries a value; a plain kill() is not a request.
  if (info->si_code != SI_QUEUE) return;
  const int saved_errno = errno;
  const int value = info->si_value.sival_int;
  (void)!write(g_pipe_write.load(std::memory_order_relaxed), &value, sizeof(value));
  errno = saved_errno;
}

bool open_pipe() {
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return false;
  fcntl(fds[1], F_SETFL, O_NONBLOCK);
  g_pipe_read.store(fds[0]);
  g_pipe_write.store(fds[1]);
  return true;
}

void* worker_main(void*) {
  t_in_hook = 1;  // for good: nothing the worker allocates is the program's
  pthread_setname_np(pthread_self(), "kestrel-hook");
  const int fd = g_pipe_read.load();
  for (;;) {
    int request;
    ssize_t n = TEMP_FAILURE_RETRY(read(fd, &request, sizeof(request)));
    if (n != sizeof(request)) return nullptr;  // the pipe was closed or broken
    handle_request(request);
  }
}

int find_text(struct dl_phdr_info* info, size_t, void*) {
  const uintptr_t self = reinterpret_cast<uintptr_t>(&find_text);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& ph = info->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD || !(ph.p_flags & PF_X)) continue;
    const uintptr_t start = info->dlpi_addr + ph.p_vaddr;
    if (self >= start && self < start + ph.p_memsz) {
      g_text_start = start;
      g_text_end = start + ph.p_memsz;
      return 1;
    }
  }
  return 0;
}

// Across fork() the child gets the tables whole: no thread is inside them while fork runs. The
// worker does not survive into the child, and the child must not answer through the parent's
// pipe, so it gets its own pipe now and its own worker at its first allocation call.
void before_fork() { g_recorder.lock_all(); }
void after_fork_parent() { g_recorder.unlock_all(); }
void after_fork_child() {
  g_recorder.unlock_all();
  close(g_pipe_read.load());
  close(g_pipe_write.load());
  if (open_pipe()) g_worker_missing.store(true, std::memory_order_relaxed);
}

uint64_t resident_bytes() {
  char buf[128] = {};
  int fd = TEMP_FAILURE_RETRY(open("/proc/self/statm", O_RDONLY | O_CLOEXEC));
  if (fd < 0) return 0;
  ssize_t n = TEMP_FAILURE_RETRY(read(fd, buf, sizeof(buf) - 1));
  close(fd);
  unsigned long long size = 0, resident = 0;
  if (n <= 0 || sscanf(buf, "%llu %llu", &size, &resident) != 2) return 0;
  return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

std::string allocator_statistics() {
  char* text = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&text, &size);
  if (f == nullptr) return "malloc_info failed: " + std::string(strerror(errno));
  malloc_info(0, f);
  fclose(f);
  std::string out(text, size);
  free(text);
  return out;
}

__attribute__((constructor)) void hook_init() {
  InHook in_hook;
  dl_iterate_phdr(find_text, nullptr);
  // The first backtrace loads the unwinder with dlopen, which allocates: do it now, not inside
  // the first recorded malloc.
  void* warm[2];
  backtrace(warm, 2);
  if (!open_pipe()) return;
  struct sigaction sa = {};
  sa.sa_sigaction = on_request_signal;
  sa.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&sa.sa_mask);
  sigaction(request_signal(), &sa, nullptr);
  pthread_atfork(before_fork, after_fork_parent, after_fork_child);
  start_worker();
}

}  // namespace

Recorder& recorder() { return g_recorder; }

void start_worker() {
  // The worker takes no signal: requests reach a thread of the program and come to it by pipe.
  sigset_t all, old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  pthread_create(&thread, &attr, worker_main, nullptr);
  pthread_attr_destroy(&attr);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

int capture_backtrace(uintptr_t* frames) {
  void* raw[kMaxFrames + 8];
  const int n = backtrace(raw, kMaxFrames + 8);
  int first = 0;
  while (first < n) {
    const uintptr_t pc = reinterpret_cast<uintptr_t>(raw[first]);
    if (pc < g_text_start || pc >= g_text_end) break;
    first++;
  }
  int depth = 0;
  for (int i = first; i < n && depth < kMaxFrames; ++i) {
    frames[depth++] = reinterpret_cast<uintptr_t>(raw[i]);
  }
  return depth;
}

void handle_request(int request) {
  InHook in_hook;
  LogWriter log;
  switch (request) {
    case kEnable: {
      if (!g_recorder.enable()) {
        log.write(printf_string("enable failed: cannot map the recorder's tables: %s", strerror(errno)));
        break;
      }
      RecorderStats st = g_recorder.stats();
      log.write(printf_string("enabled: backtraces of up to %d frames, tables of %zu KiB", kMaxFrames,
                       st.table_bytes / 1024));
      break;
    }
    case kDump:
      for (const std::string& text :
           dump_texts(g_recorder.groups(), g_recorder.stats(), g_recorder.recording())) {
        log.write(text);
      }
      break;
    case kDisable: {
      const size_t kib = g_recorder.stats().table_bytes / 1024;
      g_recorder.disable();
      log.write(printf_string("disabled: %zu KiB of tables released", kib));
      break;
    }
    case kStat:
      log.write(allocator_statistics());
      break;
    case kPurge:
    case kPurgeAll: {
      const uint64_t before = resident_bytes();
      malloc_trim(0);
      const uint64_t after = resident_bytes();
      log.write(printf_string("%s: malloc_trim returned %" PRIu64 " bytes to the system",
                       request == kPurge ? "purge" : "purge-all", before > after ? before - after : 0));
      break;
    }
    default:
      log.write(printf_string("unknown request %d", request));
      break;
  }
}

}  // namespace kestrel_hook
