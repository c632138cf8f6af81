// SPDX-License-Identifier: Apache-2.0
// The driver's log records: decoding one record into an Entry, printing it line by line with a
// header per line, and reading records off the driver descriptor. Log readers match on the
// error lines below by their line numbers, so those numbers are fixed.
#include "libs/kestrel/logger.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <new>

#include "libs/kestrel/kit.h"
#include "platform/log.h"

namespace tarvo::kestrel::logger {

namespace {

// Formatted entries up to this size are built on the stack; only larger ones allocate.
constexpr size_t kStackOutput = 1024;
constexpr size_t kTagWidth = 8;

// Splits the payload into priority, tag and message. A message without its zero byte gets one
// stored over its last byte, so the text never reaches past the payload.
bool decode(user_logger_entry_compat* record, Entry* entry) {
  const size_t len = record->len;
  if (len <= 2) {
    KLOGE_AT(445, "+++ LOG: entry too small\n");
    return false;
  }
  char* payload = record->msg;
  const char* tag_end = static_cast<const char*>(memchr(payload + 1, '\0', len - 1));
  if (tag_end == nullptr) {
    KLOGE_AT(461, "+++ LOG: malformed log message\n");
    return false;
  }
  const size_t start = static_cast<size_t>(tag_end - payload) + 1;
  size_t end = start;
  if (start < len) {
    const char* zero = static_cast<const char*>(memchr(payload + start, '\0', len - start));
    if (zero != nullptr) {
      end = static_cast<size_t>(zero - payload);
    } else {
      end = len - 1;
      payload[end] = '\0';
    }
  }
  // A tag that ends the payload leaves an empty message: the caller's zero byte after it.

  entry->tv_sec = record->sec;
  entry->tv_nsec = record->nsec;
  entry->priority = static_cast<unsigned char>(payload[0]);
  entry->pid = record->pid;
  entry->tid = record->tid;
  entry->reserved = 0;
  entry->tag = payload + 1;
  entry->messageLen = static_cast<int64_t>(end - start);
  entry->message = payload + start;
  return true;
}

// "MM-DD hh:mm:ss" of the entry's local time; empty for a time localtime cannot represent.
// Records come in bursts within one second, so the text of the last second is kept: the time
// conversion costs more than everything else the printer does. Each thread keeps its own; a
// change of time zone shows from the next second on.
const char* format_time(int64_t sec) {
  struct Cached {
    bool valid = false;
    int64_t sec = 0;
    char text[32] = "";
  };
  thread_local Cached cached;
  if (!cached.valid || cached.sec != sec) {
    kit::local_time(sec, "%m-%d %H:%M:%S", cached.text, sizeof(cached.text));
    cached.sec = sec;
    cached.valid = true;
  }
  return cached.text;
}

// Appends v as printf's "%<width>d" (pad ' ') or "%0<width>d" (pad '0') would; the printer
// builds its header by hand because snprintf alone costs as much as the write.
char* put_decimal(char* out, long long v, int width, char pad) {
  char digits[24];
  int n = 0;
  unsigned long long u =
      v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v);
  do {
    digits[n++] = static_cast<char>('0' + u % 10);
    u /= 10;
  } while (u != 0);
  int len = n + (v < 0 ? 1 : 0);
  if (v < 0 && pad == '0') *out++ = '-';
  for (; len < width; ++len) *out++ = pad;
  if (v < 0 && pad == ' ') *out++ = '-';
  while (n > 0) *out++ = digits[--n];
  return out;
}

// One write per entry so that lines of concurrent writers never interleave; a short write is
// not continued and a failure is not reported.
void write_entry(int fd, const char* buf, size_t size) {
  [[maybe_unused]] ssize_t ret = TEMP_FAILURE_RETRY(write(fd, buf, size));
}

}  // namespace

int kestrel_logger_print(Format format, int fd, user_logger_entry_compat* record,
                         EntryCallback callback, void* data) {
  Entry entry;
  if (!decode(record, &entry)) {
    KLOGE_AT(563, "process buffer faile\n");
    return -1;
  }
  if (callback != nullptr && callback(&entry, data) != 0) return -1;

  const char* const message = entry.message;
  const size_t message_len = static_cast<size_t>(entry.messageLen);
  if (message_len == 0) return 0;
  const char* const message_end = message + message_len;

  // The header is "%s.%03ld %5d %5d %c %-8s:". Everything before the tag is built once here;
  // the tag of any length is copied in when the first line is built.
  char prefix[96];
  size_t prefix_len = 0;
  size_t tag_len = 0;
  size_t header_len = 0;
  if (format != FORMAT_MESSAGE) {
    const char* time_text = format_time(entry.tv_sec);
    size_t time_len = strlen(time_text);
    memcpy(prefix, time_text, time_len);
    char* p = prefix + time_len;
    *p++ = '.';
    p = put_decimal(p, entry.tv_nsec / 1000000, 3, '0');
    *p++ = ' ';
    p = put_decimal(p, entry.pid, 5, ' ');
    *p++ = ' ';
    p = put_decimal(p, entry.tid, 5, ' ');
    *p++ = ' ';
    *p++ = kit::priority_letter(entry.priority);
    *p++ = ' ';
    prefix_len = static_cast<size_t>(p - prefix);
    tag_len = strlen(entry.tag);
    header_len = prefix_len + std::max(tag_len, kTagWidth) + 1;
  }

  // Counting the lines first sizes the buffer, so the entry goes out in one write.
  size_t lines = 0;
  for (const char* p = message; p < message_end; ++p) {
    p = static_cast<const char*>(memchr(p, '\n', static_cast<size_t>(message_end - p)));
    if (p == nullptr) break;
    ++lines;
  }
  if (message_end[-1] != '\n') ++lines;

  const size_t needed = message_len + lines * header_len + 2;
  char stack_out[kStackOutput];
  std::unique_ptr<char[]> heap_out;
  char* out = stack_out;
  if (needed > kStackOutput) {
    heap_out.reset(new (std::nothrow) char[needed]);
    if (!heap_out) return -1;
    out = heap_out.get();
  }

  char* pos = out;
  const char* line = message;
  for (size_t i = 0; i < lines; ++i) {
    if (header_len != 0) {
      if (i == 0) {
        memcpy(pos, prefix, prefix_len);
        memcpy(pos + prefix_len, entry.tag, tag_len);
        memset(pos + prefix_len + tag_len, ' ', header_len - 1 - prefix_len - tag_len);
        pos[header_len - 1] = ':';
      } else {
        memcpy(pos, out, header_len);
      }
      pos += header_len;
    }
    const char* nl =
        static_cast<const char*>(memchr(line, '\n', static_cast<size_t>(message_end - line)));
    const char* line_end = nl != nullptr ? nl : message_end;
    memcpy(pos, line, static_cast<size_t>(line_end - line));
    pos += line_end - line;
    *pos++ = '\n';
    line = line_end + 1;
  }

  write_entry(fd, out, static_cast<size_t>(pos - out));
  return 0;
}

Follow follow_driver_log(int fd, int timeout_ms, RecordBuffer* buf) {
  // poll, not select: a parent that leaks descriptors can hand us a driver descriptor of 1024 or
  // more, which an fd_set cannot hold.
  for (;;) {
    struct pollfd wait = {.fd = fd, .events = POLLIN, .revents = 0};
    int ready = poll(&wait, 1, timeout_ms);
    if (ready < 0) continue;
    if (ready == 0) {
      if (timeout_ms != kNoTimeout) return Follow::kTimedOut;
      continue;
    }

    ssize_t n = read(fd, buf->bytes, kMaxRecordRead);
    if (n == 0) return Follow::kEndOfFile;
    if (n < 0) {
      if (errno == EINTR) continue;
      // Deliberately not reported: the caller prints the buffer as it stands.
      return Follow::kRecord;
    }
    buf->payload_read = static_cast<int>(n) - static_cast<int>(sizeof(user_logger_entry_compat));
    const int len = buf->entry()->len;
    if (len != buf->payload_read) return Follow::kBadLength;
    buf->bytes[sizeof(user_logger_entry_compat) + static_cast<size_t>(len)] = 0;
    return Follow::kRecord;
  }
}

}  // namespace tarvo::kestrel::logger
