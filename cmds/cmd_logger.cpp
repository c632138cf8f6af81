// Placeholder for the `logger` sub-command until it lands: it refuses to run rather than
// print anything that could be mistaken for real output.
#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

int cmd_logger(int, const char**) { die("logger: not available in this build"); }
