// Placeholder for the `malloc-debug` sub-command until it lands: it refuses to run rather than
// print anything that could be mistaken for real output.
#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

int cmd_malloc_debug(int, const char**) { die("malloc-debug: not available in this build"); }
