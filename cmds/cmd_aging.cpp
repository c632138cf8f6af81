// Placeholder for the `aging` sub-command until it lands: it refuses to run rather than
// print anything that could be mistaken for real output.
#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

int cmd_aging(int, const char**) { die("aging: not available in this build"); }
