// SPDX-License-Identifier: Apache-2.0
// A process's command line as one printable line for tables and logs: the program's base name
// and its arguments separated by blanks. Callers pass a zero-filled buffer of at least 511 bytes;
// no terminating zero is written (the caller's zero after the text ends it).
#pragma once

#include <stddef.h>
#include <sys/types.h>

inline constexpr size_t kCmdlineBufferSize = 512;

bool pid_cmdline(int pid, char* buf, size_t size);

// The same from a given cmdline file, for tests.
bool pid_cmdline_path(const char* path, char* buf, size_t size);

// The same on bytes already read (at most 511 of them). `data` must have room for one more
// byte, which is set to zero. Returns the text length in *len.
bool pid_cmdline_bytes(char* data, size_t n, char* buf, size_t* len);

// The raw bytes of /proc/<pid>/cmdline (or of the file at `path`): at most size - 1 of them in
// one read, with a zero after them. Returns their count, or -1 when the file cannot be opened
// or read.
ssize_t read_pid_cmdline(int pid, char* data, size_t size);
ssize_t read_cmdline_file(const char* path, char* data, size_t size);
