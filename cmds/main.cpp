// SPDX-License-Identifier: Apache-2.0
// kestrel's entry point: the table of sub-commands, the command list printed without one, and
// the smallest sub-command, `version`.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "cmds/cmds.h"
#include "libs/kestrel/device.h"
#include "parse-options/parse-options.h"

namespace {

struct cmd_struct {
  const char* name;
  int (*handler)(int argc, const char** argv);
  const char* help;
};

// The help texts are printed exactly as they stand.
constexpr cmd_struct kCommands[] = {
    {"version", cmd_version, "show current version."},
    {"meminfo", cmd_meminfo, "show pid memory usage."},
    {"compact", cmd_proc_madvise, "compact process"},
    {"malloc-debug", cmd_malloc_debug, "enable procs malloc debug (64bit only)"},
    {"logger", cmd_logger, "dump kestrel logger."},
    {"mem-stress", cmd_mem_stress, "memory stress test."},
    {"aging", cmd_aging, "start a aging daemon."},
    {"utils", cmd_utils, "misc utilities."},
    {"config", cmd_config, "get or set memory options"},
};

// Names are padded to 12 characters so every help text starts in column 19.
constexpr size_t kNameField = 12;

constexpr bool names_fit() {
  for (const cmd_struct& cmd : kCommands) {
    if (std::char_traits<char>::length(cmd.name) > kNameField) return false;
  }
  return true;
}
static_assert(names_fit(), "a command name longer than 12 characters breaks the help column");

void list_cmds_help() {
  puts("These are kestrel commands used in various situations:");
  for (const cmd_struct& cmd : kCommands) {
    printf("   %s   ", cmd.name);
    for (size_t i = strlen(cmd.name); i < kNameField; i++) putchar(' ');
    printf("%s\n", cmd.help);
  }
}

// Ends the process with `status`, unless standard output could not take everything written to
// it (a full disk, an I/O error): output that never arrived must not end in success.
[[noreturn]] void exit_checking_stdout(int status) {
  if (fflush(stdout) != 0) die("write failure on standard output: %s", strerror(errno));
  if (ferror(stdout)) die("write failure on standard output");
  exit(status);
}

}  // namespace

int cmd_version(int, const char**) {
  int major = 0, minor = 0;
  if (!tarvo::kestrel::util::KestrelVersion(major, minor)) die("cannot get kestrel version.");
  printf("kestrel version %d.%d\n", major, minor);
  return 0;
}

int main(int argc, const char** argv) {
  if (argc < 2) {
    printf("%s\n\n", "kestrel is a command line tool for debugging memory");
    list_cmds_help();
    exit_checking_stdout(1);
  }
  for (const cmd_struct& cmd : kCommands) {
    if (strcmp(argv[1], cmd.name) == 0) exit_checking_stdout(cmd.handler(argc - 1, argv + 1));
  }
  fprintf(stderr, "%s: '%s' is not a kestrel command.\n", argv[0], argv[1]);
  return 1;
}
