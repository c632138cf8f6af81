// SPDX-License-Identifier: Apache-2.0
// The driver's log records: the decoded view handed to filters, the printer that formats one
// record line by line onto a descriptor, and the one follower of the driver's log that the
// logger command, the aging daemon and malloc-debug share.
#pragma once

#include <stdint.h>

#include "libs/kestrel/driver.h"

namespace tarvo::kestrel::logger {

// A decoded record; the pointers point into the caller's record buffer and are valid only
// during the call that hands it out.
struct Entry {
  int64_t tv_sec;
  int64_t tv_nsec;
  int priority;
  int pid;
  int tid;
  int32_t reserved;  // always 0
  const char* tag;
  int64_t messageLen;
  const char* message;
};

// FORMAT_MESSAGE prints the bare message lines; any other value puts a header before each line.
enum Format {
  FORMAT_DEFAULT = 0,
  FORMAT_MESSAGE = 1,
};

// A filter returns 0 to let the entry be printed, anything else to suppress it.
using EntryCallback = int (*)(const Entry* entry, void* data);

// Decodes one record and writes it to fd with a single write. Returns 0 when written (a failed
// write is not reported), -1 when the record is malformed, suppressed or memory ran out. The
// record must be writable and the byte after its payload must be zero.
int kestrel_logger_print(Format format, int fd, user_logger_entry_compat* entry,
                         EntryCallback callback, void* data);

// One record from the driver, with room for the zero byte after the longest payload. It starts
// zero-filled, so a failed first read leaves an empty record that the printer rejects.
struct RecordBuffer {
  alignas(user_logger_entry_compat) unsigned char bytes[kMaxRecordRead + 1] = {};
  int payload_read = 0;  // bytes of the last read after the header
  user_logger_entry_compat* entry() { return reinterpret_cast<user_logger_entry_compat*>(bytes); }
};

// What waiting for the next record came to.
enum class Follow {
  kRecord,     // buf holds a record, its payload zero-terminated
  kTimedOut,   // no record within the time-out
  kEndOfFile,  // the driver closed the stream
  kBadLength,  // the header's length disagrees with payload_read
};

inline constexpr int kNoTimeout = -1;

// Waits for the next record on fd and reads it into buf. Every wait is bounded afresh by
// timeout_ms (kNoTimeout waits for ever). A read error other than EINTR is not reported: buf is
// left as it stands (the previous record) and kRecord is returned, so the caller hands it on.
Follow follow_driver_log(int fd, int timeout_ms, RecordBuffer* buf);

}  // namespace tarvo::kestrel::logger
