// SPDX-License-Identifier: Apache-2.0
// What the malloc hook tells the driver's log: the texts of its answers, cut into records of the
// driver's write format, and the frames of a backtrace as module, offset and function name.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "driver/kestrel_abi.h"
#include "hook/recorder.h"
#include "libs/kestrel/driver.h"

namespace kestrel_hook {

inline constexpr const char* kLogDevice = tarvo::kestrel::driver::kDevicePath;
inline constexpr const char kTag[] = "malloc_debug";
inline constexpr char kPriorityInfo = 4;
// The driver takes at most this many payload bytes per write.
inline constexpr size_t kMaxPayload = KESTREL_LOG_MAX_PAYLOAD;
// Groups a dump shows, largest first. The driver's log is a ring that a reader must keep up with;
// past this many the rest are summed up in one line.
inline constexpr size_t kMaxDumpGroups = 100;

// snprintf into a string of at most 511 bytes: every line the hook writes is short.
std::string printf_string(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The payloads ([priority][tag]\0[message]\0, each at most kMaxPayload bytes) that carry `text`,
// cut at line ends where a line fits, else inside the line. No payload for an empty text.
std::vector<std::string> to_payloads(std::string_view text);

// "  #03 pc 00000000000011c9  /usr/bin/prog (function+0x19)": the offset is the address the
// module was linked for, what `addr2line -e module offset` takes; the name is there when the
// module's dynamic symbol table has one.
std::string describe_frame(int index, uintptr_t pc);

// The dump's texts, one per record, before cutting: a summary line, one text per group (sorted
// largest first) and the closing line that begins with "END".
std::vector<std::string> dump_texts(std::vector<Group> groups, const RecorderStats& stats,
                                    bool recording);

// The driver's log, opened for one answer. Writes fail quietly: the process being debugged must
// not suffer for a missing or full log.
class LogWriter {
 public:
  LogWriter();
  ~LogWriter();
  LogWriter(const LogWriter&) = delete;
  LogWriter& operator=(const LogWriter&) = delete;
  void write(std::string_view text);

 private:
  int fd_;
};

}  // namespace kestrel_hook
