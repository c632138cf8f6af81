// SPDX-License-Identifier: Apache-2.0
// Test backend of __android_log_print: keeps every message for the tests to read. The libraries
// start no thread, so the unit tests log from one thread only.
#include "tests/support/log_capture.h"

#include <stdarg.h>
#include <stdio.h>

#include "platform/log.h"

namespace kestrel_test {
namespace {

// Constant-initialized, so messages logged while other files are still being initialized are
// kept too.
constinit std::vector<LogLine> g_lines;

}  // namespace

std::vector<LogLine> logged() { return g_lines; }

void clear_log() { g_lines.clear(); }

}  // namespace kestrel_test

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  char msg[4096];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(msg, sizeof(msg), fmt, ap);
  va_end(ap);
  kestrel_test::g_lines.push_back({prio, tag ? tag : "", msg});
  return 1;
}
