// SPDX-License-Identifier: Apache-2.0
// The small mechanics every part of kestrel needs and writes only once: reading a file whole,
// the letter of a log priority, a local time stamp and a number from the command line.
// Interrupted system calls are reissued with TEMP_FAILURE_RETRY from <unistd.h>.
#pragma once

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

namespace tarvo::kestrel::kit {

// Reads everything from offset 0 of fd into buf, whose size is the room to read into; the room
// doubles while the content fills it but for one byte, which then holds a zero after the
// content. Returns the length of the content, or -1 with errno set. buf keeps its grown size,
// so a caller that reads the same file again starts with the room the last read needed.
template <typename Buffer>
ssize_t read_whole(int fd, Buffer& buf) {
  if (buf.size() < 2) buf.resize(4096);
  size_t used = 0;
  for (;;) {
    if (used + 1 == buf.size()) buf.resize(buf.size() * 2);
    ssize_t n = TEMP_FAILURE_RETRY(
        pread(fd, buf.data() + used, buf.size() - 1 - used, static_cast<off_t>(used)));
    if (n < 0) return -1;
    if (n == 0) break;
    used += static_cast<size_t>(n);
  }
  buf.data()[used] = '\0';
  return static_cast<ssize_t>(used);
}

// "V", "D", "I", "W", "E", "F" or "S" for the Android log priorities 2 to 8, '?' for any other.
char priority_letter(int priority);

// Formats the local time of `sec` with strftime's `format` into out; empty when the time cannot
// be represented. localtime_r: the aging daemon stamps from two threads.
void local_time(int64_t sec, const char* format, char* out, size_t size);

// The whole of `text` as a decimal number, as strtol reads it; false when anything follows it.
bool parse_number(const char* text, long* value);

}  // namespace tarvo::kestrel::kit
