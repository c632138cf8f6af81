// SPDX-License-Identifier: Apache-2.0
// Turns /proc/<pid>/cmdline into "name arg arg": one open and one read of at most 511 bytes on
// fixed stack buffers, so it is cheap enough to run for every row of a process table.
#include "parse-options/pid_cmdline.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <android-base/unique_fd.h>

namespace {

constexpr size_t kMaxRead = 511;

}  // namespace

bool pid_cmdline_bytes(char* data, size_t n, char* buf, size_t* len) {
  if (n < 2 || n > kMaxRead) return false;
  data[n] = '\0';
  char* nul = static_cast<char*>(memchr(data, '\0', n));
  if (nul == nullptr) return false;  // a cut, unterminated program path

  char* slash = static_cast<char*>(memrchr(data, '/', static_cast<size_t>(nul - data)));
  char* start = slash != nullptr ? slash + 1 : data;
  // The last byte read is normally the zero that ends the last argument; it is left out.
  char* end = data + n - 1;
  for (char* p = start; p < end; p++) {
    if (*p == '\0' || *p == '\n') *p = ' ';
  }
  while (end - 1 > start && end[-1] == ' ') end--;

  *len = static_cast<size_t>(end - start);
  memcpy(buf, start, *len);
  return true;
}

ssize_t read_cmdline_file(const char* path, char* data, size_t size) {
  android::base::unique_fd fd(open(path, O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return -1;
  ssize_t n = read(fd.get(), data, size - 1);
  if (n >= 0) data[n] = '\0';
  return n;
}

namespace {

void cmdline_file_of(int pid, char (&path)[32]) { snprintf(path, sizeof(path), "/proc/%d/cmdline", pid); }

}  // namespace

ssize_t read_pid_cmdline(int pid, char* data, size_t size) {
  char path[32];
  cmdline_file_of(pid, path);
  return read_cmdline_file(path, data, size);
}

bool pid_cmdline_path(const char* path, char* buf, size_t /*size*/) {
  char data[kMaxRead + 1] = {};
  ssize_t n = read_cmdline_file(path, data, sizeof(data));
  if (n < 2) return false;
  size_t len = 0;
  return pid_cmdline_bytes(data, static_cast<size_t>(n), buf, &len);
}

bool pid_cmdline(int pid, char* buf, size_t size) {
  char path[32];
  cmdline_file_of(pid, path);
  return pid_cmdline_path(path, buf, size);
}
