// SPDX-License-Identifier: Apache-2.0
// The mechanics shared by every part of kestrel; see kit.h.
#include "libs/kestrel/kit.h"

#include <stdlib.h>

namespace tarvo::kestrel::kit {

char priority_letter(int priority) {
  static constexpr char kLetters[] = "VDIWEFS";
  if (priority < 2 || priority > 8) return '?';
  return kLetters[priority - 2];
}

void local_time(int64_t sec, const char* format, char* out, size_t size) {
  time_t t = static_cast<time_t>(sec);
  struct tm tm;
  out[0] = '\0';
  if (localtime_r(&t, &tm) != nullptr) strftime(out, size, format, &tm);
}

bool parse_number(const char* text, long* value) {
  char* end = nullptr;
  *value = strtol(text, &end, 10);
  return *end == '\0';
}

}  // namespace tarvo::kestrel::kit
