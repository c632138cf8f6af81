// Placeholder for the `compact` sub-command until it lands: it refuses to run rather than
// print anything that could be mistaken for real output.
#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

int cmd_proc_madvise(int, const char**) { die("compact: not available in this build"); }
