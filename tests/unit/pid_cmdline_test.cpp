// pid_cmdline on crafted cmdline files: the byte rules that turn "/path/prog\0arg\0" into
// "prog arg", the 511-byte single read, and the cases that give no command line at all.
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <optional>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "parse-options/pid_cmdline.h"

namespace {

using namespace std::string_literals;

// Callers zero-fill the buffer; this one is filled with a marker instead, to show that only the
// text bytes are written and that a failure writes nothing.
constexpr char kMarker = '#';

struct CmdlineCase {
  const char* name;
  std::string bytes;                    // the cmdline file's content
  std::optional<std::string> expected;  // nullopt: no command line
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const CmdlineCase& c, std::ostream* os) { *os << c.name; }

const CmdlineCase kCases[] = {
    {"KernelThreadHasNone", "", std::nullopt},
    {"OneByteIsTooShort", "a", std::nullopt},
    {"ArgumentsSeparatedByBlanks", "sh\0-c\0sleep 5\0"s, "sh -c sleep 5"},
    {"ProgramPathCutToBaseName", "/system/bin/app_process64\0-Xzygote\0--start-system-server\0"s,
     "app_process64 -Xzygote --start-system-server"},
    {"SlashesInArgumentsKept", "/bin/cp\0a/b\0/tmp/c\0"s, "cp a/b /tmp/c"},
    {"NewlinesBecomeBlanks", "echo\0one\ntwo\0"s, "echo one two"},
    {"NoZeroByteWithin511IsMalformed", std::string(600, 'a') + "\0"s, std::nullopt},
    {"CutAt511Bytes", "/bin/prog\0"s + std::string(600, 'x'),
     "prog " + std::string(500, 'x')},
    {"LastByteLeftOutEvenWhenNotZero", "ab\0cd"s, "ab c"},
    {"TrailingEmptyArgumentsTrimmed", "a\0\0\0"s, "a"},
    {"PathEndingInSlashStartsWithBlank", "x/\0y\0"s, " y"},
    {"FirstByteNeverTrimmed", "/\0\0"s, " "},
};

class CmdlineBytes : public testing::TestWithParam<CmdlineCase> {};

TEST_P(CmdlineBytes, GiveTheirText) {
  const CmdlineCase& c = GetParam();
  std::string path = testing::TempDir() + "cmdline_" + c.name;
  FILE* f = fopen(path.c_str(), "we");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(fwrite(c.bytes.data(), 1, c.bytes.size(), f), c.bytes.size());
  fclose(f);

  char buf[kCmdlineBufferSize];
  memset(buf, kMarker, sizeof(buf));
  bool ok = pid_cmdline_path(path.c_str(), buf, sizeof(buf));
  unlink(path.c_str());

  std::string written(buf, sizeof(buf));
  size_t text_len = written.find(kMarker);
  if (!c.expected) {
    EXPECT_FALSE(ok);
    EXPECT_EQ(written, std::string(sizeof(buf), kMarker));
    return;
  }
  ASSERT_TRUE(ok);
  EXPECT_EQ(written.substr(0, text_len), *c.expected);
  EXPECT_EQ(written.substr(text_len), std::string(sizeof(buf) - text_len, kMarker));
}

INSTANTIATE_TEST_SUITE_P(Files, CmdlineBytes, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<CmdlineCase>& tp) {
                           return std::string(tp.param.name);
                         });

TEST(PidCmdline, OwnProcessByPid) {
  char buf[kCmdlineBufferSize] = {};
  ASSERT_TRUE(pid_cmdline(getpid(), buf, sizeof(buf)));
  EXPECT_EQ(std::string(buf).rfind("kestrel_unit_tests", 0), 0u) << buf;
}

TEST(PidCmdline, VanishedProcessHasNone) {
  char buf[kCmdlineBufferSize] = {};
  EXPECT_FALSE(pid_cmdline(INT_MAX, buf, sizeof(buf)));
  EXPECT_EQ(buf[0], '\0');
}

}  // namespace
