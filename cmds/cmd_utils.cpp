// Placeholder for the `utils` sub-command until it lands: it refuses to run rather than
// print anything that could be mistaken for real output.
#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

int cmd_utils(int, const char**) { die("utils: not available in this build"); }
