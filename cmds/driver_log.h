// SPDX-License-Identifier: Apache-2.0
// The commands that follow the driver's log (logger, aging, malloc-debug) end the same way when
// the stream breaks; this is where its result kinds become their fatal texts.
#pragma once

#include "libs/kestrel/logger.h"

// Waits for the next record into buf. Returns once it holds one; a time-out, the end of the
// stream or a record whose length disagrees with its header ends the process.
void next_record_or_die(int fd, int timeout_ms, tarvo::kestrel::logger::RecordBuffer* buf);
