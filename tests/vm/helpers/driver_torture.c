// SPDX-License-Identifier: Apache-2.0
// Drives /dev/kestrel with bad input and under load (the log raced while the process table is
// walked), inside a test VM. Each sub-command prints one vmcheck line: badinput, race SECONDS.
// (That a "cmd" record needs root at write time, and only that tag, check-aging shows.)
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "driver/kestrel_abi.h"

#define RECORD_SIZE sizeof(struct kestrel_proc_ms)
// A table request big enough for every process the driver reports.
#define TABLE_BUFFER_SIZE (sizeof(struct kestrel_proc_size_msu) + KESTREL_MAX_COUNT * RECORD_SIZE)

static char failure[512];

static pthread_mutex_t failure_lock = PTHREAD_MUTEX_INITIALIZER;

static void fail(const char *fmt, ...) {
  va_list ap;
  pthread_mutex_lock(&failure_lock);
  if (!failure[0]) {  // the first failure is the one worth reading
    va_start(ap, fmt);
    vsnprintf(failure, sizeof failure, fmt, ap);
    va_end(ap);
  }
  pthread_mutex_unlock(&failure_lock);
}

static int report(const char *check) {
  if (failure[0]) printf("vmcheck: FAIL %s: %s\n", check, failure);
  else printf("vmcheck: PASS %s\n", check);
  return failure[0] != 0;
}

// Every descriptor here is non-blocking: readers poll, and a drain or an empty read must not wait.
static int open_dev(int flags) {
  int fd = open("/dev/kestrel", flags | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) fail("open /dev/kestrel: %s", strerror(errno));
  return fd;
}

// Reads away what the log holds, so that a check sees only its own records.
static void drain(int fd) {
  char buf[KESTREL_LOG_MAX_RECORD];
  while (read(fd, buf, sizeof buf) > 0) {
  }
}

// Each call of the bad-input walk must return `want`, and when that is -1, fail with `err`.
// (That poll wakes a reader, and only when a record waits, the race's readers show.)
static void expect(long r, long want, int err, const char *what) {
  if (r != want) fail("%s: gave %ld (%s), want %ld", what, r, strerror(errno), want);
  else if (r == -1 && errno != err) fail("%s: %s, want %s", what, strerror(errno), strerror(err));
}

// A table request with its head at `t` (the size and the uid table share their checks).
static long table(int fd, struct kestrel_proc_size_msu *t, uint32_t flags, uint32_t count) {
  t->flags = flags;
  t->count = count;
  return ioctl(fd, KESTREL_IOC_SIZE_MEMSTATS, t);
}

static int check_badinput(void) {
  int fd = open_dev(O_RDWR);  // failing, it fails every call below after its own message
  // A page followed by an inaccessible one: a table placed at its end runs into the guard.
  long page = sysconf(_SC_PAGESIZE);
  unsigned char *guard = mmap(NULL, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  mprotect(guard + page, page, PROT_NONE);
  void *unmapped = guard + page;
  void *edge = guard + page - sizeof(struct kestrel_proc_size_msu) - RECORD_SIZE;  // room for one record
  struct kestrel_proc_size_msu *t = malloc(TABLE_BUFFER_SIZE);
  static char payload[KESTREL_LOG_MAX_PAYLOAD + 2];
  memset(payload, 'x', sizeof payload);
  payload[0] = 4;
  memcpy(payload + 1, "torture", 8);
  payload[KESTREL_LOG_MAX_PAYLOAD - 1] = 0;
  payload[KESTREL_LOG_MAX_PAYLOAD] = 0;
  static char rec[KESTREL_LOG_MAX_RECORD + 16];

  struct kestrel_proc_pid_ms unknown_pid = {.flags = KESTREL_STAT_ALL, .pid = 0x3fffffff};
  struct kestrel_proc_pid_ms no_flag = {.flags = 0, .pid = getpid()};
  drain(fd);
  expect(ioctl(fd, 0xFB04, NULL), -1, ENOTTY, "unknown request 0xFB04");
  expect(ioctl(fd, KESTREL_IOC_SET_SCENE, &(struct kestrel_scene){0, 2, 0}), -1, EINVAL, "scene 2 of 0..1");
  expect(ioctl(fd, KESTREL_IOC_SET_SCENE, unmapped), -1, EFAULT, "scene at unmapped address");
  expect(ioctl(fd, KESTREL_IOC_PID_MEMSTAT, &unknown_pid), -1, ESRCH, "unknown pid");
  expect(ioctl(fd, KESTREL_IOC_PID_MEMSTAT, &no_flag), -1, EINVAL, "pid request without a flag");
  expect(ioctl(fd, KESTREL_IOC_PID_MEMSTAT, unmapped), -1, EFAULT, "pid request at unmapped address");
  expect(ioctl(fd, KESTREL_IOC_SIZE_MEMSTATS, unmapped), -1, EFAULT, "size table at unmapped address");
  expect(table(fd, edge, KESTREL_STAT_ALL, 3), -1, EFAULT, "records into the guard page");
  expect(table(fd, t, KESTREL_STAT_ALL, 0), -1, EINVAL, "table of 0");
  expect(table(fd, t, KESTREL_STAT_ALL, KESTREL_MAX_COUNT + 1), -1, EINVAL, "table past the largest count");
  expect(table(fd, t, KESTREL_STAT_ALL, UINT32_MAX), -1, EINVAL, "table of 2^32-1");
  expect(table(fd, t, 0, 1), -1, EINVAL, "table without a flag");
  expect(write(fd, payload, KESTREL_LOG_MAX_PAYLOAD + 1), -1, EINVAL, "oversized write");
  expect(write(fd, "\4torture-without-nul", 20), -1, EINVAL, "unterminated tag");
  expect(write(fd, "\4tag\0", 5), -1, EINVAL, "tag NUL as the last byte");
  expect(write(fd, unmapped, 10), -1, EFAULT, "unmapped payload");
  // The log takes the largest payload, and reads return whole records only.
  expect(write(fd, payload, KESTREL_LOG_MAX_PAYLOAD), KESTREL_LOG_MAX_PAYLOAD, 0, "largest write");
  expect(read(fd, rec, KESTREL_LOG_MAX_RECORD - 1), -1, EINVAL, "short read buffer");
  expect(read(fd, rec, sizeof rec), KESTREL_LOG_MAX_RECORD, 0, "largest record read back");
  expect(read(fd, rec, sizeof rec), -1, EAGAIN, "empty non-blocking read");
  expect(write(fd, "\4torture\0x\0", 11), 11, 0, "write");
  expect(read(fd, unmapped, sizeof rec), -1, EFAULT, "read into unmapped buffer");
  expect(read(fd, rec, sizeof rec), 32 + 11, 0, "read after a faulting read");

  // A table of 2 asking for pid and name only: the figures not asked for stay zero (pid 1 has a
  // vss) and nothing is written past the second record. (That a table lists every process, with
  // the count it filled, check-meminfo's meminfo-table shows.)
  memset(t, 0xa5, TABLE_BUFFER_SIZE);
  if (table(fd, t, KESTREL_STAT_PID | KESTREL_STAT_COMM, 2) != 0) fail("table of 2: %s", strerror(errno));
  for (int i = 0; i < 2; i++)
    if (t->ms[i].uid || t->ms[i].vss) fail("table of 2: pid %d has figures not asked for", t->ms[i].pid);
  memset(rec, 0xa5, RECORD_SIZE);
  if (memcmp(&t->ms[2], rec, RECORD_SIZE) != 0) fail("table of 2: bytes written past the second record");
  free(t);
  close(fd);
  return report("driver-badinput");
}

// 4 writers and 4 readers. Writers hold back while any reader is more than WINDOW records
// behind, so every reader keeps up and must see every record whole and in order; a fifth
// reader sleeps through the run and must then see only whole records, in order, from wherever
// the ring had moved on to. Each payload is written in two pieces, which must make one record
// stamped with the writer's pid, tid and the time. Meanwhile the main thread walks the
// process table while a child keeps forking children that exit at once: every table must be
// whole and in ascending pid order.
enum { WRITERS = 4, READERS = 4, WINDOW = 64 };

static volatile int stop, writers_done;
static long total_written;  // by all writers, final once writers_done is set
static long consumed[READERS];
static int reader_fd[READERS];
static pid_t writer_tid[WRITERS];

static size_t make_payload(char *buf, int w, long seq) {
  size_t len = (size_t)snprintf(buf, 64, "%ctorture%c%d %ld ", 4, 0, w, seq);
  size_t body = (size_t)(seq * 37 + w * 11) % 900;
  for (size_t i = 0; i < body; i++) buf[len + i] = (char)('a' + (seq + (long)i) % 26);
  len += body;
  buf[len++] = 0;
  return len;
}

// How many records the slowest reader is behind the writers.
static long backlog(void) {
  long slowest = LONG_MAX;
  for (int r = 0; r < READERS; r++) {
    long c = __atomic_load_n(&consumed[r], __ATOMIC_ACQUIRE);
    if (c < slowest) slowest = c;
  }
  return __atomic_load_n(&total_written, __ATOMIC_ACQUIRE) - slowest;
}

static void *writer(void *arg) {
  int w = (int)(intptr_t)arg;
  char buf[1024];
  int fd = open_dev(O_WRONLY);
  writer_tid[w] = gettid();
  for (long seq = 0; fd >= 0 && !stop; seq++) {
    while (!stop && backlog() > WINDOW) sched_yield();
    size_t len = make_payload(buf, w, seq);
    struct iovec iov[2] = {{buf, 9}, {buf + 9, len - 9}};  // "\4torture\0", then the rest
    ssize_t n = writev(fd, iov, 2);
    if (n != (ssize_t)len) {
      fail("writer %d: write gave %zd: %s", w, n, strerror(errno));
      break;
    }
    __atomic_add_fetch(&total_written, 1, __ATOMIC_RELEASE);
  }
  if (fd >= 0) close(fd);
  return NULL;
}

// Checks one record read from the driver (the log holds only the writers' records); 0 when it
// is not one of them at all.
static int check_record(const char *rec, ssize_t n, long next[WRITERS], int lagging) {
  const struct kestrel_log_entry *e = (const void *)rec;
  char want[1024];
  int w;
  long seq;
  if (n < 32 + 9 || e->len != n - 32 || memcmp(e->msg, "\4torture", 9) != 0 ||
      sscanf(e->msg + 9, "%d %ld", &w, &seq) != 2 || w < 0 || w >= WRITERS) {
    fail("torn record of %zd bytes: %.40s", n, e->msg + 9);
    return 0;
  }
  size_t len = make_payload(want, w, seq);
  if (len != e->len || memcmp(want, e->msg, len) != 0) fail("torn record from writer %d seq %ld", w, seq);
  if (e->pid != getpid() || e->tid != writer_tid[w] || e->sec < 1000000000)
    fail("record stamped %d/%d at %lld s", e->pid, e->tid, (long long)e->sec);
  if (seq != next[w] && !(lagging && seq > next[w]))  // a lagging reader may have lost the oldest
    fail("writer %d: seq %ld after %ld", w, seq, next[w] - 1);
  next[w] = seq + 1;
  return 1;
}

// Reads until it has every record written, or for 5 s after the writers stopped without them.
static void *reader(void *arg) {
  const int index = (int)(intptr_t)arg, fd = reader_fd[index];
  long next[WRITERS] = {0};
  char rec[KESTREL_LOG_MAX_RECORD];
  int idle = 0;
  while (!__atomic_load_n(&writers_done, __ATOMIC_ACQUIRE) || consumed[index] != total_written) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) {
      if (writers_done && ++idle > 50) break;
      continue;
    }
    ssize_t n = read(fd, rec, sizeof rec);
    if (n < 0) {
      fail("reader %d: %s", index, strerror(errno));
      break;
    }
    if (check_record(rec, n, next, 0)) __atomic_add_fetch(&consumed[index], 1, __ATOMIC_RELEASE);
  }
  if (consumed[index] != total_written)
    fail("reader %d got %ld of %ld records", index, consumed[index], total_written);
  return NULL;
}

static int check_race(int seconds) {
  pthread_t rt[READERS], wt[WRITERS];
  int walker = open_dev(O_RDONLY);
  drain(walker);
  for (int r = 0; r < READERS; r++) {
    reader_fd[r] = open_dev(O_RDONLY);
    drain(reader_fd[r]);
  }
  pid_t churn = fork();  // before any thread of ours
  if (churn == 0)
    for (;;) {
      pid_t p = fork();
      if (p == 0) _exit(0);
      if (p > 0) waitpid(p, NULL, 0);
    }
  for (int r = 0; r < READERS; r++) pthread_create(&rt[r], NULL, reader, (void *)(intptr_t)r);
  for (int w = 0; w < WRITERS; w++) pthread_create(&wt[w], NULL, writer, (void *)(intptr_t)w);
  struct kestrel_proc_size_msu *t = malloc(TABLE_BUFFER_SIZE);
  for (time_t end = time(NULL) + seconds; time(NULL) < end;) {
    if (table(walker, t, KESTREL_STAT_ALL, KESTREL_MAX_COUNT) != 0) {
      fail("table: %s", strerror(errno));
      break;
    }
    for (uint32_t i = 1; i < t->count; i++)
      if (t->ms[i].pid <= t->ms[i - 1].pid) fail("table: pid %d after %d", t->ms[i].pid, t->ms[i - 1].pid);
  }
  kill(churn, SIGKILL);
  waitpid(churn, NULL, 0);
  free(t);
  stop = 1;
  for (int w = 0; w < WRITERS; w++) pthread_join(wt[w], NULL);
  __atomic_store_n(&writers_done, 1, __ATOMIC_RELEASE);
  for (int r = 0; r < READERS; r++) pthread_join(rt[r], NULL);
  // The walker's descriptor is the sleeping reader: it has read nothing yet.
  long next[WRITERS] = {0};
  char rec[KESTREL_LOG_MAX_RECORD];
  ssize_t n;
  while ((n = read(walker, rec, sizeof rec)) > 0) check_record(rec, n, next, 1);
  if (errno != EAGAIN) fail("lagging reader: %s before the log was empty", strerror(errno));
  if (total_written < 200) fail("only %ld records written", total_written);  // the race barely ran
  for (int r = 0; r < READERS; r++) close(reader_fd[r]);
  close(walker);
  return report("driver-race");
}

int main(int argc, char **argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  const char *what = argc >= 2 ? argv[1] : "";
  int seconds = argc >= 3 ? atoi(argv[2]) : 0;
  if (!strcmp(what, "badinput")) return check_badinput();
  if (!strcmp(what, "race") && seconds > 0) return check_race(seconds);
  fprintf(stderr, "usage: driver_torture badinput|race SECONDS\n");
  return 2;
}
