// SPDX-License-Identifier: Apache-2.0
// Host backend of __android_log_print: every message goes to the host's system log, never to the
// terminal. The tag is kept visible as the syslog identity so messages can be told apart.
#include <stdarg.h>
#include <stdio.h>
#include <syslog.h>

#include "platform/log.h"

namespace {

int syslog_priority(int prio) {
  switch (prio) {
    case ANDROID_LOG_VERBOSE:
    case ANDROID_LOG_DEBUG: return LOG_DEBUG;
    case ANDROID_LOG_INFO: return LOG_INFO;
    case ANDROID_LOG_WARN: return LOG_WARNING;
    case ANDROID_LOG_ERROR: return LOG_ERR;
    case ANDROID_LOG_FATAL: return LOG_CRIT;
    default: return LOG_NOTICE;
  }
}

}  // namespace

extern "C" int __android_log_print(int prio, const char* tag, const char* fmt, ...) {
  char msg[1024];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(msg, sizeof(msg), fmt, ap);
  va_end(ap);
  // syslog adds its own line end; a message that carries one would show an empty line.
  size_t len = n < 0 ? 0 : (static_cast<size_t>(n) < sizeof(msg) ? n : sizeof(msg) - 1);
  while (len > 0 && msg[len - 1] == '\n') msg[--len] = '\0';
  // LOG_NDELAY is not used: no socket is opened until the first message, and none is ever
  // inherited by a child of the aging daemon's "cmd" records beyond what syslog keeps itself.
  syslog(LOG_USER | syslog_priority(prio), "%s: %s", tag ? tag : "", msg);
  return 1;
}
