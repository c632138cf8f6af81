// SPDX-License-Identifier: Apache-2.0
// The option parser on argument vectors made from the input: the input is cut at zero bytes into
// arguments, as the kernel hands them to a program, and parsed against a table with every option
// kind and against an empty table.
//
// parse_options ends the process on "-h", "--help" and on every bad value, and a fuzzer that
// filters such inputs out would never reach the error paths, which are the ones most worth
// fuzzing. So this program is linked with --wrap=exit: while a parse runs, exit jumps back here
// with its status instead of ending the process (the parser holds nothing that would need
// releasing); at any other time it is the real exit. Only this program is linked that way.
#include <setjmp.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "fuzz/support.h"
#include "parse-options/parse-options.h"

namespace {

jmp_buf g_exit_jump;
bool g_in_parse = false;
int g_exit_status = 0;

const char* const kUsage[] = {"kestrel fuzz [options] [--] args", nullptr};

struct Values {
  int bits = 0;
  int verbose = 0;
  int repeat = 0;
  int pid = 0;
  int nat = 0;
  int native = 0;
  const char* name = nullptr;
  const char* path = nullptr;
};

// True when p points into one of the arguments (a string option's value is never a copy).
bool points_into_arguments(const char* p, const std::vector<char>& text) {
  return p >= text.data() && p < text.data() + text.size();
}

void parse_once(const std::vector<char>& text, const std::vector<const char*>& args,
                bool empty_table) {
  Values v;
  // "nat" comes before "native" so that a long name that is a prefix of a later one is tried.
  const option full[] = {
      {.type = OPTION_BIT, .short_name = 'f', .long_name = "file", .value = &v.bits, .help = "file bit", .defval = 1},
      {.type = OPTION_BIT, .long_name = "anon", .value = &v.bits, .help = "anon bit", .defval = 2},
      {.type = OPTION_COUNTUP, .short_name = 'v', .long_name = "verbose", .value = &v.verbose, .help = "more output"},
      {.type = OPTION_COUNTUP, .short_name = 'r', .value = &v.repeat, .help = "repeat"},
      {.type = OPTION_INTEGER, .short_name = 'p', .long_name = "pid", .value = &v.pid, .help = "pid of process"},
      {.type = OPTION_INTEGER, .long_name = "nat", .value = &v.nat, .help = "nat"},
      {.type = OPTION_INTEGER, .short_name = 'n', .long_name = "native", .value = &v.native, .help = "fillin native size mib"},
      {.type = OPTION_STRING, .short_name = 's', .long_name = "name", .value = &v.name, .help = "a name"},
      {.type = OPTION_STRING, .long_name = "a-rather-long-option-name", .value = &v.path, .help = "a path"},
      {.type = OPTION_END},
  };
  const option empty[] = {{.type = OPTION_END}};
  const option* table = empty_table ? empty : full;

  // The parser rewrites the vector in place; one spare slot for the terminating null.
  std::vector<const char*> argv(args);
  argv.push_back(nullptr);
  const int argc = static_cast<int>(args.size());

  g_in_parse = true;
  if (setjmp(g_exit_jump) != 0) {
    g_in_parse = false;
    FUZZ_CHECK(g_exit_status == kUsageExitStatus);
    return;
  }
  const int n = parse_options(argc, argv.data(), table, kUsage);
  g_in_parse = false;

  FUZZ_CHECK(n >= 0 && n < argc);
  FUZZ_CHECK(argv[static_cast<size_t>(n)] == nullptr);
  // What remains is the arguments that were not taken, in their given order.
  size_t from = 1;
  for (int i = 0; i < n; i++) {
    while (from < args.size() && args[from] != argv[static_cast<size_t>(i)]) from++;
    FUZZ_CHECK(from < args.size());
    from++;
  }
  FUZZ_CHECK(v.name == nullptr || points_into_arguments(v.name, text));
  FUZZ_CHECK(v.path == nullptr || points_into_arguments(v.path, text));
  FUZZ_CHECK((v.bits & ~3) == 0);
}

}  // namespace

extern "C" [[noreturn]] void __real_exit(int status);

extern "C" [[noreturn]] void __wrap_exit(int status) {
  if (g_in_parse) {
    g_exit_status = status;
    longjmp(g_exit_jump, 1);
  }
  __real_exit(status);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // argv[0] is the sub-command word; the arguments follow, each ended by a zero byte (the last
  // one also by the end of the input).
  std::vector<char> text = {'f', 'u', 'z', 'z', '\0'};
  text.insert(text.end(), data, data + size);
  if (size == 0 || data[size - 1] != 0) text.push_back('\0');
  std::vector<const char*> args;
  for (size_t i = 0; i < text.size();) {
    args.push_back(text.data() + i);
    i += strlen(text.data() + i) + 1;
  }
  parse_once(text, args, false);
  parse_once(text, args, true);
  return 0;
}
