// SPDX-License-Identifier: Apache-2.0
// The fatal texts of a broken driver log stream, shared by every command that follows it.
#include "cmds/driver_log.h"

#include "parse-options/parse-options.h"

using namespace tarvo::kestrel::logger;

void next_record_or_die(int fd, int timeout_ms, RecordBuffer* buf) {
  switch (follow_driver_log(fd, timeout_ms, buf)) {
    case Follow::kRecord:
      return;
    case Follow::kTimedOut:
      die("read: timeout!\n");
    case Follow::kEndOfFile:
      die("read: Unexpected EOF!\n");
    case Follow::kBadLength:
      die("read: unexpected length. Expected %d, got %d\n", buf->entry()->len, buf->payload_read);
  }
}
