// SPDX-License-Identifier: Apache-2.0
// Drives /dev/kestrel with bad input and under load, inside a test VM. Each
// sub-command prints one vmcheck line: badinput, race SECONDS, walk SECONDS. (That a "cmd"
// record needs root at write time, and only that tag, check-aging shows with the klog helper.)
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
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

#define DEV "/dev/kestrel"

static const char *check_name;
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

static int report(void) {
  if (failure[0]) {
    printf("vmcheck: FAIL %s: %s\n", check_name, failure);
    return 1;
  }
  printf("vmcheck: PASS %s\n", check_name);
  return 0;
}

static int open_dev(int flags) {
  int fd = open(DEV, flags | O_CLOEXEC);
  if (fd < 0) fail("open %s: %s", DEV, strerror(errno));
  return fd;
}

// The result of one call that must have failed with `want` (errno is still the call's).
static void expect_errno(long r, int want, const char *what) {
  if (r != -1) fail("%s: gave %ld, want %s", what, r, strerror(want));
  else if (errno != want) fail("%s: %s, want %s", what, strerror(errno), strerror(want));
}

// A table request big enough for every process the driver reports.
#define FULL_TABLE_SIZE (sizeof(struct kestrel_proc_size_msu) + KESTREL_MAX_COUNT * sizeof(struct kestrel_proc_ms))

// A page followed by an inaccessible one: an object placed at its end runs into the guard.
static unsigned char *guarded_page(void) {
  long page = sysconf(_SC_PAGESIZE);
  unsigned char *p = mmap(NULL, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (p == MAP_FAILED) return NULL;
  mprotect(p + page, page, PROT_NONE);
  return p;
}

static void drain(int fd) {
  char buf[KESTREL_LOG_MAX_RECORD];
  int fl = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, fl | O_NONBLOCK);
  while (read(fd, buf, sizeof buf) > 0) {
  }
  fcntl(fd, F_SETFL, fl);
}

static int check_badinput(void) {
  check_name = "driver-badinput";
  int fd = open_dev(O_RDWR);
  if (fd < 0) return report();
  long page = sysconf(_SC_PAGESIZE);
  unsigned char *guard = guarded_page();
  void *unmapped = guard + page;  // the guard page itself

  expect_errno(ioctl(fd, 0xFB04, NULL), ENOTTY, "unknown request");
  expect_errno(ioctl(fd, 0xFA04, NULL), ENOTTY, "unknown request");

  // Scenes: only 0 and 1 exist; reserved words must be zero.
  const struct {
    struct kestrel_scene s;
    int want;
  } scenes[] = {{{0, 2, 0}, EINVAL}, {{0, UINT64_MAX, 0}, EINVAL}, {{1, 0, 0}, EINVAL}};
  for (size_t i = 0; i < sizeof scenes / sizeof scenes[0]; i++)
    expect_errno(ioctl(fd, KESTREL_IOC_SET_SCENE, (void *)&scenes[i].s), scenes[i].want, "scene");
  expect_errno(ioctl(fd, KESTREL_IOC_SET_SCENE, unmapped), EFAULT, "scene at unmapped address");

  // Statistics: count, flags, pid and addresses.
  struct kestrel_proc_size_msu *t = calloc(1, FULL_TABLE_SIZE + 4 * sizeof(struct kestrel_proc_ms));
  const struct {
    uint32_t flags, count;
    int want;
  } tables[] = {{KESTREL_STAT_ALL, 0, EINVAL},          {KESTREL_STAT_ALL, 4097, EINVAL},
                {KESTREL_STAT_ALL, 0xffffffffu, EINVAL}, {0, 1, EINVAL},
                {0x40000, 1, EINVAL}};
  for (size_t i = 0; i < sizeof tables / sizeof tables[0]; i++) {
    for (unsigned long req = KESTREL_IOC_SIZE_MEMSTATS; req <= KESTREL_IOC_UID_MEMSTATS; req++) {
      t->flags = tables[i].flags;
      t->count = tables[i].count;
      t->uid = 0;
      expect_errno(ioctl(fd, req, t), tables[i].want, "table request");
    }
  }
  struct kestrel_proc_pid_ms one = {.flags = KESTREL_STAT_ALL, .pid = 0x3fffffff};
  expect_errno(ioctl(fd, KESTREL_IOC_PID_MEMSTAT, &one), ESRCH, "unknown pid");
  one.flags = 0;
  one.pid = getpid();
  expect_errno(ioctl(fd, KESTREL_IOC_PID_MEMSTAT, &one), EINVAL, "no flag");
  expect_errno(ioctl(fd, KESTREL_IOC_PID_MEMSTAT, unmapped), EFAULT, "pid request at unmapped address");
  expect_errno(ioctl(fd, KESTREL_IOC_SIZE_MEMSTATS, unmapped), EFAULT, "table at unmapped address");
  // Head readable, records running into the guard page.
  struct kestrel_proc_size_msu *edge = (void *)(guard + page - sizeof(*edge) - sizeof(struct kestrel_proc_ms));
  edge->flags = KESTREL_STAT_ALL;
  edge->count = 3;
  expect_errno(ioctl(fd, KESTREL_IOC_SIZE_MEMSTATS, edge), EFAULT, "records into the guard page");

  // A full table fills only the figures asked for and never writes past count. (That it lists
  // every process, check-meminfo's meminfo-table shows, and in pid order, driver-walk.)
  memset(t, 0xa5, FULL_TABLE_SIZE + 4 * sizeof(struct kestrel_proc_ms));
  t->flags = KESTREL_STAT_PID | KESTREL_STAT_COMM;
  t->count = KESTREL_MAX_COUNT;
  if (ioctl(fd, KESTREL_IOC_SIZE_MEMSTATS, t) != 0) {
    fail("full table: %s", strerror(errno));
  } else {
    for (uint32_t i = 0; i < t->count; i++)
      if (t->ms[i].uid || t->ms[i].vss) fail("pid %d: figures filled that were not asked for", t->ms[i].pid);
    const unsigned char *after = (const unsigned char *)&t->ms[t->count];
    if (after[0] != 0xa5 || after[sizeof(struct kestrel_proc_ms) - 1] != 0xa5) fail("bytes written past count");
  }
  memset(t, 0xa5, FULL_TABLE_SIZE);
  t->flags = KESTREL_STAT_ALL;
  t->count = 2;
  if (ioctl(fd, KESTREL_IOC_SIZE_MEMSTATS, t) != 0 || t->count != 2)
    fail("table of 2: %s, count %u", strerror(errno), t->count);
  else if (((unsigned char *)&t->ms[2])[0] != 0xa5)
    fail("table of 2 wrote a third record");
  t->flags = KESTREL_STAT_UID;
  t->uid = 0x7ffffff0u;  // nobody has it
  t->count = 10;
  if (ioctl(fd, KESTREL_IOC_UID_MEMSTATS, t) != 0 || t->count != 0)
    fail("uid without processes: %s, count %u", strerror(errno), t->count);
  free(t);

  // Log writes: sizes, the tag's NUL, addresses.
  static char payload[KESTREL_LOG_MAX_PAYLOAD + 2];
  memset(payload, 'x', sizeof payload);
  payload[0] = 4;
  memcpy(payload + 1, "torture", 8);
  payload[KESTREL_LOG_MAX_PAYLOAD - 1] = 0;
  payload[KESTREL_LOG_MAX_PAYLOAD] = 0;
  expect_errno(write(fd, payload, KESTREL_LOG_MAX_PAYLOAD + 1), EINVAL, "oversized");
  expect_errno(write(fd, "\4t", 2), EINVAL, "too short");
  expect_errno(write(fd, "\4torture-without-nul", 20), EINVAL, "unterminated tag");
  expect_errno(write(fd, "\4tag\0", 5), EINVAL, "tag NUL as the last byte");
  expect_errno(write(fd, unmapped, 10), EFAULT, "unmapped payload");

  drain(fd);
  if (write(fd, payload, KESTREL_LOG_MAX_PAYLOAD) != KESTREL_LOG_MAX_PAYLOAD) fail("largest write: %s", strerror(errno));
  struct iovec iov[3] = {{"\4tor", 4}, {"ture\0hel", 8}, {"lo\0", 3}};
  if (writev(fd, iov, 3) != 15) fail("writev: %s", strerror(errno));

  // Reads: whole records only, too small a buffer is refused.
  static char rec[KESTREL_LOG_MAX_RECORD + 16];
  struct kestrel_log_entry *e = (void *)rec;
  expect_errno(read(fd, rec, KESTREL_LOG_MAX_RECORD - 1), EINVAL, "short read buffer");
  ssize_t n = read(fd, rec, sizeof rec);
  if (n != KESTREL_LOG_MAX_RECORD || e->len != KESTREL_LOG_MAX_PAYLOAD) fail("largest record read as %zd", n);
  n = read(fd, rec, sizeof rec);
  if (n != 32 + 15 || e->len != 15 || memcmp(e->msg, "\4torture\0hello\0", 15) || e->pid != getpid() ||
      e->tid != gettid() || e->sec < 1000000000 || e->nsec < 0 || e->nsec >= 1000000000)
    fail("writev record read back wrong (%zd bytes)", n);
  int fl = fcntl(fd, F_GETFL);
  fcntl(fd, F_SETFL, fl | O_NONBLOCK);
  expect_errno(read(fd, rec, sizeof rec), EAGAIN, "empty non-blocking read");
  struct pollfd pfd = {fd, POLLIN, 0};
  if (poll(&pfd, 1, 0) != 0) fail("poll readable with nothing to read");
  if (write(fd, "\4torture\0x\0", 11) != 11) fail("write: %s", strerror(errno));
  if (poll(&pfd, 1, 1000) != 1) fail("poll not readable after a write");
  expect_errno(read(fd, unmapped, sizeof rec), EFAULT, "read into unmapped buffer");
  if (read(fd, rec, sizeof rec) != 32 + 11) fail("record lost after a faulting read");
  close(fd);
  return report();
}

// 4 writers and 4 readers. Writers hold back while any reader is more than WINDOW records
// behind, so every reader keeps up and must see every record whole and in order; a fifth
// reader sleeps through the run and must see only whole records, in order, from wherever
// the ring had moved on to.
enum { WRITERS = 4, READERS = 4, WINDOW = 64 };

static volatile int stop, writers_done;
static long written[WRITERS];  // by each writer; final once writers_done is set
static long consumed[READERS];
static int reader_fd[READERS];
static pid_t writer_tid[WRITERS];

static size_t make_payload(char *buf, int w, long seq) {
  size_t len = (size_t)snprintf(buf, 64, "%ctorture%c%d %ld ", 4, 0, w, seq) ;
  size_t body = (size_t)(seq * 37 + w * 11) % 900;
  for (size_t i = 0; i < body; i++) buf[len + i] = (char)('a' + (seq + (long)i) % 26);
  len += body;
  buf[len++] = 0;
  return len;
}

static long slowest(void) {
  long m = __atomic_load_n(&consumed[0], __ATOMIC_ACQUIRE);
  for (int r = 1; r < READERS; r++) {
    long c = __atomic_load_n(&consumed[r], __ATOMIC_ACQUIRE);
    if (c < m) m = c;
  }
  return m;
}

static long total_written(void) {
  long s = 0;
  for (int w = 0; w < WRITERS; w++) s += __atomic_load_n(&written[w], __ATOMIC_ACQUIRE);
  return s;
}

static void *writer(void *arg) {
  int w = (int)(intptr_t)arg;
  char buf[1024];
  int fd = open_dev(O_WRONLY);
  writer_tid[w] = gettid();
  for (long seq = 0; fd >= 0 && !stop; seq++) {
    while (!stop && total_written() - slowest() > WINDOW) sched_yield();
    size_t len = make_payload(buf, w, seq);
    ssize_t n = write(fd, buf, len);
    if (n != (ssize_t)len) {
      fail("writer %d: write gave %zd: %s", w, n, strerror(errno));
      break;
    }
    __atomic_store_n(&written[w], seq + 1, __ATOMIC_RELEASE);
  }
  if (fd >= 0) close(fd);
  return NULL;
}

// Checks one record read from the driver; returns the writer, or -1 for a foreign record.
static int check_record(const char *rec, ssize_t n, long next[WRITERS], int lagging) {
  const struct kestrel_log_entry *e = (const void *)rec;
  char want[1024];
  int w;
  long seq;
  if (n < 32 || e->len != n - 32) {
    fail("record of %zd bytes says len %u", n, e->len);
    return -1;
  }
  if (e->len < 9 || memcmp(e->msg, "\4torture", 9) != 0) return -1;
  if (sscanf(e->msg + 9, "%d %ld", &w, &seq) != 2 || w < 0 || w >= WRITERS) {
    fail("torn record: %.40s", e->msg + 9);
    return -1;
  }
  size_t len = make_payload(want, w, seq);
  if (len != e->len || memcmp(want, e->msg, len) != 0) fail("torn record from writer %d seq %ld", w, seq);
  if (e->pid != getpid() || e->tid != writer_tid[w]) fail("record stamped %d/%d", e->pid, e->tid);
  if (seq != next[w] && !(lagging && seq > next[w]))
    fail("writer %d: seq %ld after %ld%s", w, seq, next[w] - 1, lagging ? "" : " (record lost)");
  next[w] = seq + 1;
  return w;
}

static int reader_done(const long next[WRITERS]) {
  if (!__atomic_load_n(&writers_done, __ATOMIC_ACQUIRE)) return 0;
  for (int w = 0; w < WRITERS; w++)
    if (next[w] != written[w]) return 0;
  return 1;
}

static void *reader(void *arg) {
  const int index = (int)(intptr_t)arg, fd = reader_fd[index];
  long next[WRITERS] = {0};
  char rec[KESTREL_LOG_MAX_RECORD];
  int idle = 0;
  while (!reader_done(next)) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, 100) <= 0) {
      if (writers_done && ++idle > 50) break;  // 5 s without the missing records
      continue;
    }
    ssize_t n = read(fd, rec, sizeof rec);
    if (n < 0) {
      fail("reader %d: %s", index, strerror(errno));
      break;
    }
    if (check_record(rec, n, next, 0) >= 0) __atomic_add_fetch(&consumed[index], 1, __ATOMIC_RELEASE);
  }
  for (int w = 0; w < WRITERS; w++)
    if (next[w] != written[w])
      fail("reader %d got %ld of writer %d's %ld records", index, next[w], w, written[w]);
  return NULL;
}

static int check_race(int seconds) {
  check_name = "driver-race";
  pthread_t rt[READERS], wt[WRITERS];
  int lag = open_dev(O_RDONLY);
  for (int r = 0; r < READERS; r++) {
    reader_fd[r] = open_dev(O_RDONLY);
    if (reader_fd[r] < 0 || lag < 0) return report();
    drain(reader_fd[r]);
  }
  drain(lag);
  for (int r = 0; r < READERS; r++) pthread_create(&rt[r], NULL, reader, (void *)(intptr_t)r);
  for (int w = 0; w < WRITERS; w++) pthread_create(&wt[w], NULL, writer, (void *)(intptr_t)w);
  sleep((unsigned)seconds);
  stop = 1;
  long total = 0;
  for (int w = 0; w < WRITERS; w++) {
    pthread_join(wt[w], NULL);
    total += written[w];
  }
  __atomic_store_n(&writers_done, 1, __ATOMIC_RELEASE);
  for (int r = 0; r < READERS; r++) pthread_join(rt[r], NULL);

  long next[WRITERS] = {0};
  long lagged = 0;
  char rec[KESTREL_LOG_MAX_RECORD];
  fcntl(lag, F_SETFL, O_NONBLOCK);
  for (ssize_t n; (n = read(lag, rec, sizeof rec)) > 0;)
    if (check_record(rec, n, next, 1) >= 0) lagged++;
  printf("vmlog: driver-race: %ld records by %d writers, each read by %d readers; a lagging reader kept %ld\n",
         total, WRITERS, READERS, lagged);
  if (total < 200) fail("only %ld records written", total);  // the race barely ran
  for (int r = 0; r < READERS; r++) close(reader_fd[r]);
  close(lag);
  return report();
}

// The process walk while processes come and go: a child keeps forking children that exit
// at once, and every table must still be whole and in ascending pid order.
static int check_walk(int seconds) {
  check_name = "driver-walk";
  int fd = open_dev(O_RDONLY);
  if (fd < 0) return report();
  pid_t churn = fork();
  if (churn == 0) {
    for (;;) {
      pid_t p = fork();
      if (p == 0) _exit(0);
      if (p > 0) waitpid(p, NULL, 0);
    }
  }
  struct kestrel_proc_size_msu *t = malloc(FULL_TABLE_SIZE);
  long tables = 0;
  for (time_t end = time(NULL) + seconds; time(NULL) < end && !failure[0]; tables++) {
    t->flags = KESTREL_STAT_ALL;
    t->count = KESTREL_MAX_COUNT;
    if (ioctl(fd, KESTREL_IOC_SIZE_MEMSTATS, t) != 0) {
      fail("table: %s", strerror(errno));
      break;
    }
    for (uint32_t i = 1; i < t->count; i++)
      if (t->ms[i].pid <= t->ms[i - 1].pid) fail("pid %d after %d", t->ms[i].pid, t->ms[i - 1].pid);
  }
  kill(churn, SIGKILL);
  waitpid(churn, NULL, 0);
  printf("vmlog: driver-walk: %ld tables while processes came and went\n", tables);
  free(t);
  close(fd);
  return report();
}

int main(int argc, char **argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  const char *what = argc >= 2 ? argv[1] : "";
  int seconds = argc >= 3 ? atoi(argv[2]) : 0;
  if (!strcmp(what, "badinput")) return check_badinput();
  if (!strcmp(what, "race") && seconds > 0) return check_race(seconds);
  if (!strcmp(what, "walk") && seconds > 0) return check_walk(seconds);
  fprintf(stderr, "usage: driver_torture badinput|race SECONDS|walk SECONDS\n");
  return 2;
}
