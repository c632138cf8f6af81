// SPDX-License-Identifier: Apache-2.0
// pid_cmdline on crafted cmdline files: the byte rules that turn "/path/prog\0arg\0" into
// "prog arg", the 511-byte single read, and the cases that give no command line at all. Reading
// by pid is proven through compact, which names each process it walks.
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "parse-options/pid_cmdline.h"

namespace {

using namespace std::string_literals;

TEST(PidCmdline, CmdlineBytesGiveTheirText) {
  // The file's bytes and the text they give, nullopt for no command line.
  const struct { std::string bytes; std::optional<std::string> expected; } cases[] = {
      {"", std::nullopt},   // a kernel thread
      {"a", std::nullopt},  // one byte is too short
      {"/bin/cp\0a/b\0/tmp/c\0"s, "cp a/b /tmp/c"},
      {"echo\0one\ntwo\0"s, "echo one two"},
      {std::string(600, 'a') + "\0"s, std::nullopt},  // no zero byte within the 511 read
      {"/bin/prog\0"s + std::string(600, 'x'), "prog " + std::string(500, 'x')},
      {"ab\0cd"s, "ab c"},  // the last byte read is left out even when it is not zero
      {"a\0\0\0"s, "a"},     // trailing empty arguments are trimmed
      {"/\0\0"s, " "},  // a path ending in "/" leaves an empty name; the first byte stays
  };
  const std::string path = testing::TempDir() + "cmdline";
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.bytes));
    std::ofstream(path, std::ios::trunc) << c.bytes;
    // Callers zero-fill the buffer; a marker shows that only the text is written, else nothing.
    char buf[kCmdlineBufferSize];
    memset(buf, '#', sizeof(buf));
    EXPECT_EQ(pid_cmdline_path(path.c_str(), buf, sizeof(buf)), c.expected.has_value());
    std::string want = c.expected.value_or("");
    want.resize(sizeof(buf), '#');
    EXPECT_EQ(std::string(buf, sizeof(buf)), want);
  }
  unlink(path.c_str());
}

}  // namespace
