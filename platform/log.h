// SPDX-License-Identifier: Apache-2.0
// The system log as the product code sees it: liblog's __android_log_print on a device, and on
// any other Linux a backend of ours with the same signature that sends messages to syslog.
#pragma once

#if defined(__ANDROID__)
#include <android/log.h>
#else
extern "C" {
enum android_LogPriority {
  ANDROID_LOG_UNKNOWN = 0,
  ANDROID_LOG_DEFAULT,
  ANDROID_LOG_VERBOSE,
  ANDROID_LOG_DEBUG,
  ANDROID_LOG_INFO,
  ANDROID_LOG_WARN,
  ANDROID_LOG_ERROR,
  ANDROID_LOG_FATAL,
  ANDROID_LOG_SILENT,
};
int __android_log_print(int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));
}
#endif

namespace tarvo::kestrel::platform {

// The text after the last '/' of a path; usable on __FILE__ at compile time.
constexpr const char* base_name(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

}  // namespace tarvo::kestrel::platform

// Library modules log errors under "kestrel" as "<file>:<line> message". Log readers match on
// these lines, so where a message's line number is part of its published form the call passes it
// explicitly (KLOGE_AT); elsewhere the call site's own line is used.
#define KLOGE_AT(line, fmt, ...) \
  KLOGE_AS(::tarvo::kestrel::platform::base_name(__FILE__), line, fmt __VA_OPT__(, ) __VA_ARGS__)
// The same under a published name other than the file's own.
#define KLOGE_AS(name, line, fmt, ...)                                                       \
  __android_log_print(ANDROID_LOG_ERROR, "kestrel", "%s:%d " fmt, name,                    \
                      (line) __VA_OPT__(, ) __VA_ARGS__)
#define KLOGE(fmt, ...) KLOGE_AT(__LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)
