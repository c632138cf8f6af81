// Placeholder for the `config` sub-command until it lands: it refuses to run rather than
// print anything that could be mistaken for real output.
#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

int cmd_config(int, const char**) { die("config: not available in this build"); }
