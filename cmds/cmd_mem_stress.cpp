// Placeholder for the `mem-stress` sub-command until it lands: it refuses to run rather than
// print anything that could be mistaken for real output.
#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

int cmd_mem_stress(int, const char**) { die("mem-stress: not available in this build"); }
