// SPDX-License-Identifier: Apache-2.0
// The command-line frame shared by every sub-command: option tables and their parser, the usage
// text, the process-wide error reporting (error/die, exit status 129) and the terminal size.
#pragma once

#include <stdarg.h>

enum parse_opt_type {
  OPTION_END = 0,
  OPTION_BIT = 2,      // *value |= defval
  OPTION_COUNTUP = 3,  // *value += 1; a plain switch
  OPTION_STRING = 5,   // *value = the argument text (not copied)
  OPTION_INTEGER = 6,  // *value = strtol(text, 10)
};

struct option {
  int type;
  int short_name;
  const char* long_name;
  void* value;
  const char* help;
  int flags;
  int defval;
};

struct parse_opt_ctx_t {
  const char** argv;
  const char** out;
  int argc;
  int cpidx;
  const char* opt;
};

// Exit status of every usage and fatal error.
inline constexpr int kUsageExitStatus = 129;

// argv[0] is the sub-command word and is not examined. Stores option values through the table,
// moves the remaining arguments to argv[0..n-1], sets argv[n] to null and returns n. Does not
// return on --help, -h or a bad option value.
int parse_options(int argc, const char** argv, const struct option* options,
                  const char* const* usage);

int usage_with_options_internal(const char* const* usage, const struct option* options);
[[noreturn]] void usage_with_options(const char* const* usage, const struct option* options);

void report(const char* prefix, const char* fmt, va_list ap);
int error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void die(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

namespace tarvo::kestrel::term {

// 1 when fd is a terminal (tcgetattr succeeds), else 0.
int isatty(int fd);

// Columns and rows of the controlling terminal, overridden by COLUMNS and LINES; true when
// either is known. Unknown counts are not written.
bool terminal_size(unsigned* columns, unsigned* rows);

}  // namespace tarvo::kestrel::term
