// SPDX-License-Identifier: Apache-2.0
// cmd_logger.cpp: streams the driver's log to standard output, one formatted line per message
// line, until the stream ends or a record is damaged.
#include <unistd.h>

#include "cmds/cmds.h"
#include "cmds/driver_log.h"
#include "libs/kestrel/logger.h"
#include "libs/kestrel/device.h"
#include "parse-options/parse-options.h"

using namespace tarvo::kestrel;

int cmd_logger(int, const char**) {
  int fd = util::KestrelFd();
  if (fd == -1) die("open kestrel failed");

  logger::RecordBuffer record;
  for (;;) {
    next_record_or_die(fd, logger::kNoTimeout, &record);
    logger::kestrel_logger_print(logger::FORMAT_DEFAULT, STDOUT_FILENO, record.entry(), nullptr,
                                 nullptr);
  }
}
