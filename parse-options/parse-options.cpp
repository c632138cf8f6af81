// SPDX-License-Identifier: Apache-2.0
// The option parser used by every sub-command, with its usage printer and the error reporting
// that all commands share. Unknown options end parsing quietly: they and everything after them
// are left to the command as plain arguments.
#include "parse-options/parse-options.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <termios.h>

namespace {

enum class Step { kDone, kUnknown, kError };

int opterror(const option* opt, const char* reason, bool is_short) {
  if (is_short) return error("switch '%c' %s", opt->short_name, reason);
  return error("option '%s' %s", opt->long_name, reason);
}

// The text of a string or integer option: the pending "=value" or attached text first, else
// the next argument, whatever it looks like.
bool take_text(parse_opt_ctx_t* ctx, const char** text) {
  if (ctx->opt != nullptr) {
    *text = ctx->opt;
    ctx->opt = nullptr;
    return true;
  }
  if (ctx->argc > 1) {
    ctx->argc--;
    *text = *++ctx->argv;
    return true;
  }
  return false;
}

Step get_value(parse_opt_ctx_t* ctx, const option* opt, bool is_short) {
  if (!is_short && ctx->opt != nullptr && opt->type == OPTION_COUNTUP) {
    opterror(opt, "takes no value", is_short);
    return Step::kError;
  }
  const char* text = nullptr;
  switch (opt->type) {
    case OPTION_BIT:
      *static_cast<int*>(opt->value) |= opt->defval;
      return Step::kDone;
    case OPTION_COUNTUP:
      *static_cast<int*>(opt->value) += 1;
      return Step::kDone;
    case OPTION_STRING:
      if (!take_text(ctx, &text)) {
        opterror(opt, "requires a value", is_short);
        return Step::kError;
      }
      *static_cast<const char**>(opt->value) = text;
      return Step::kDone;
    case OPTION_INTEGER: {
      if (!take_text(ctx, &text)) {
        opterror(opt, "requires a value", is_short);
        return Step::kError;
      }
      char* end = nullptr;
      *static_cast<int*>(opt->value) = static_cast<int>(strtol(text, &end, 10));
      if (*end != '\0') {
        opterror(opt, "expects a numerical value", is_short);
        return Step::kError;
      }
      return Step::kDone;
    }
    default:
      fputs("should not happen, someone must be hit on the forehead", stderr);
      exit(kUsageExitStatus);
  }
}

Step parse_short_opt(parse_opt_ctx_t* ctx, const option* options) {
  const char* arg = ctx->argv[0];
  for (const option* opt = options; opt->type != OPTION_END; opt++) {
    if (opt->short_name != arg[1]) continue;
    ctx->opt = arg[2] != '\0' ? arg + 2 : nullptr;
    Step step = get_value(ctx, opt, true);
    if (step == Step::kDone && ctx->opt != nullptr) error("%s.", "parse_options_step");
    return step;
  }
  return Step::kUnknown;
}

// A long name matches only on a word boundary: "--native" and "--native=5", not "--nat" or
// "--native5". A value given with "=" stays pending until an option consumes it.
Step parse_long_opt(parse_opt_ctx_t* ctx, const char* arg, const option* options) {
  for (const option* opt = options; opt->type != OPTION_END; opt++) {
    if (opt->long_name == nullptr) continue;
    size_t len = strlen(opt->long_name);
    if (strncmp(arg, opt->long_name, len) != 0) continue;
    if (arg[len] == '=') {
      ctx->opt = arg + len + 1;
    } else if (arg[len] != '\0') {
      continue;
    }
    return get_value(ctx, opt, false);
  }
  return Step::kUnknown;
}

}  // namespace

int parse_options(int argc, const char** argv, const option* options,
                  const char* const* usage) {
  parse_opt_ctx_t ctx = {argv + 1, argv, argc - 1, 0, nullptr};

  for (; ctx.argc > 0; ctx.argc--, ctx.argv++) {
    const char* arg = ctx.argv[0];
    if (arg[0] != '-' || arg[1] == '\0') {
      ctx.out[ctx.cpidx++] = arg;
      continue;
    }
    Step step;
    if (arg[1] == '-') {
      if (arg[2] == '\0') break;
      if (strcmp(arg + 2, "help") == 0) usage_with_options(usage, options);
      if (options[0].type == OPTION_END) break;
      step = parse_long_opt(&ctx, arg + 2, options);
    } else {
      if (arg[1] == 'h') usage_with_options(usage, options);
      if (options[0].type == OPTION_END) break;
      step = parse_short_opt(&ctx, options);
    }
    if (step == Step::kUnknown) break;
    if (step == Step::kError) usage_with_options(usage, options);
  }

  memmove(ctx.out + ctx.cpidx, ctx.argv, static_cast<size_t>(ctx.argc) * sizeof(*ctx.out));
  ctx.out[ctx.cpidx + ctx.argc] = nullptr;
  return ctx.cpidx + ctx.argc;
}

int usage_with_options_internal(const char* const* usage, const option* options) {
  if (usage == nullptr) return -1;
  fprintf(stderr, "usage: %s\n", *usage);
  if (options[0].type == OPTION_END) {
    fputc('\n', stderr);
    return -1;
  }
  constexpr int kHelpColumn = 26;
  constexpr int kMaxInline = 24;
  for (const option* opt = options; opt->type != OPTION_END; opt++) {
    int pos = fprintf(stderr, "    ");
    if (opt->short_name != 0) pos += fprintf(stderr, "-%c", opt->short_name);
    if (opt->short_name != 0 && opt->long_name != nullptr) pos += fprintf(stderr, ",");
    if (opt->long_name != nullptr) pos += fprintf(stderr, "--%s", opt->long_name);
    int pad = kHelpColumn - pos;
    if (pos > kMaxInline) {
      fputc('\n', stderr);
      pad = kHelpColumn;
    }
    fprintf(stderr, "%*s%s\n", pad, "", opt->help != nullptr ? opt->help : "");
  }
  fputc('\n', stderr);
  return -1;
}

void usage_with_options(const char* const* usage, const option* options) {
  usage_with_options_internal(usage, options);
  exit(kUsageExitStatus);
}

void report(const char* prefix, const char* fmt, va_list ap) {
  char msg[1024] = {};
  vsnprintf(msg, sizeof(msg), fmt, ap);
  fprintf(stderr, "%s%s\n", prefix, msg);
}

int error(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  report("error: ", fmt, ap);
  va_end(ap);
  return -1;
}

void die(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  report("fatal: ", fmt, ap);
  va_end(ap);
  exit(kUsageExitStatus);
}

namespace tarvo::kestrel::term {

int isatty(int fd) {
  struct termios t;
  return tcgetattr(fd, &t) == 0 ? 1 : 0;
}

bool terminal_size(unsigned* columns, unsigned* rows) {
  unsigned cols = 0, lines = 0;
  for (int fd = 0; fd <= 2; fd++) {
    struct winsize ws = {};
    if (isatty(fd) && ioctl(fd, TIOCGWINSZ, &ws) == 0) {
      cols = ws.ws_col;
      lines = ws.ws_row;
      break;
    }
  }
  if (const char* env = getenv("COLUMNS")) sscanf(env, "%u", &cols);
  if (const char* env = getenv("LINES")) sscanf(env, "%u", &lines);
  if (cols != 0 && columns != nullptr) *columns = cols;
  if (lines != 0 && rows != nullptr) *rows = lines;
  return cols != 0 || lines != 0;
}

}  // namespace tarvo::kestrel::term
