// SPDX-License-Identifier: Apache-2.0
// Process records from the host's /proc, as the driver would fill them on a device. Only the
// files behind the figures asked for are read, with one small buffer and no stream objects, so
// a table of a few hundred processes costs a few milliseconds.
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "libs/kestrel/proc-ms-fields.h"
#include "tools/kestrel-sim/scenario.h"

namespace kestrel_sim {

namespace {

using namespace tarvo::kestrel::memstat;

// Reads a small file below /proc/<pid>; returns its length or -1.
ssize_t read_at(int proc_fd, int pid, const char* name, char* buf, size_t size) {
  char path[64];
  snprintf(path, sizeof(path), "%d/%s", pid, name);
  int fd = openat(proc_fd, path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  ssize_t n = read(fd, buf, size - 1);
  close(fd);
  if (n < 0) return -1;
  buf[n] = '\0';
  return n;
}

// The number after "Key:" in a status file, or 0.
long long status_value(const char* status, const char* key) {
  size_t key_len = strlen(key);
  for (const char* line = status; line != nullptr && *line != '\0';) {
    if (strncmp(line, key, key_len) == 0) return strtoll(line + key_len, nullptr, 10);
    line = strchr(line, '\n');
    if (line != nullptr) line++;
  }
  return 0;
}

void copy_comm(proc_ms* ms, const char* text, size_t len) {
  len = std::min(len, sizeof(ms->comm) - 1);
  memcpy(ms->comm, text, len);
  ms->comm[len] = '\0';
}

int count_fds(int proc_fd, int pid) {
  char path[64];
  snprintf(path, sizeof(path), "%d/fd", pid);
  int fd = openat(proc_fd, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return 0;
  DIR* dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    return 0;
  }
  int count = 0;
  while (const dirent* e = readdir(dir)) {
    if (e->d_name[0] != '.') count++;
  }
  closedir(dir);
  return count;
}

// Fills the figures `need` asks for; false when the process has gone (or is filtered out).
bool read_proc(int proc_fd, int pid, uint32_t need, const uint32_t* uid, proc_ms* ms) {
  char buf[4096];
  *ms = {};
  ms->pid = pid;
  // status holds most figures and tells whether the process still exists.
  if (read_at(proc_fd, pid, "status", buf, sizeof(buf)) < 0) return false;
  for (const ProcMsField& f : kProcMsFields) {
    if (f.status == nullptr) continue;
    const long long value = status_value(buf, f.status);
    proc_ms_set(ms, f, f.kind == ProcMsField::kPages ? value / 4 : value);
  }
  if (uid != nullptr && static_cast<uint32_t>(ms->uid) != *uid) return false;
  if (strncmp(buf, "Name:\t", 6) == 0) copy_comm(ms, buf + 6, strcspn(buf + 6, "\n"));
  if (need & kStatComm) {
    ssize_t n = read_at(proc_fd, pid, "comm", buf, sizeof(buf));
    if (n > 0) copy_comm(ms, buf, strcspn(buf, "\n"));
  }
  if ((need & kStatOom) && read_at(proc_fd, pid, "oom_score_adj", buf, sizeof(buf)) > 0) {
    ms->oom_score_adj = static_cast<int16_t>(atoi(buf));
  }
  if ((need & kStat32) && read_at(proc_fd, pid, "exe", buf, 6) == 5) {
    ms->compat32 = memcmp(buf, "\177ELF\1", 5) == 0 ? 1 : 0;
  }
  if (need & kStatFds) ms->fds = count_fds(proc_fd, pid);
  return true;
}

}  // namespace

size_t collect_host_procs(uint32_t flags, const uint32_t* uid, int pid, proc_ms* out, size_t max) {
  if (max == 0) return 0;
  int proc_fd = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (proc_fd < 0) return 0;
  std::vector<int> pids;
  if (pid >= 0) {
    pids.push_back(pid);
  } else if (DIR* dir = fdopendir(dup(proc_fd))) {
    // Real process folders are directories; a sandbox's links into another /proc are not.
    while (const dirent* e = readdir(dir)) {
      char* end = nullptr;
      long n = strtol(e->d_name, &end, 10);
      if (*end == '\0' && n > 0 && e->d_type != DT_LNK) pids.push_back(static_cast<int>(n));
    }
    closedir(dir);
  }
  std::sort(pids.begin(), pids.end());
  size_t count = 0;
  for (int p : pids) {
    proc_ms full;
    if (!read_proc(proc_fd, p, flags, uid, &full)) continue;
    apply_mask(full, flags, &out[count]);
    if (++count == max) break;
  }
  close(proc_fd);
  return count;
}

}  // namespace kestrel_sim
