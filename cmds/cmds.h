// SPDX-License-Identifier: Apache-2.0
// The sub-command handlers of the command table. Each is called with the sub-command word as
// argv[0] and returns the process's exit status.
#pragma once

int cmd_version(int argc, const char** argv);
int cmd_meminfo(int argc, const char** argv);
int cmd_proc_madvise(int argc, const char** argv);
int cmd_malloc_debug(int argc, const char** argv);
int cmd_logger(int argc, const char** argv);
int cmd_mem_stress(int argc, const char** argv);
int cmd_aging(int argc, const char** argv);
int cmd_utils(int argc, const char** argv);
int cmd_config(int argc, const char** argv);
