// SPDX-License-Identifier: Apache-2.0
// The option parser and the reporting functions: value kinds, where parsing stops, the pending
// long value, error texts and the 1023-character cut. The usage layout is compared whole in the
// commands' own usage texts end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "parse-options/parse-options.h"

namespace {

using ::testing::Eq;
using ::testing::ExitedWithCode;

const char* const kUsage[] = {"kestrel test [options]", nullptr};

// One option of each kind the commands use.
struct Values {
  int bits = 0, count = 0, num = -1;
  const char* str = "(none)";
  std::vector<option> table = {
      {.type = OPTION_BIT, .short_name = 'b', .long_name = "bit", .value = &bits, .help = "a bit", .defval = 4},
      {.type = OPTION_COUNTUP, .short_name = 'r', .long_name = "rand", .value = &count, .help = "count"},
      {.type = OPTION_STRING, .short_name = 's', .long_name = "str", .value = &str, .help = "text"},
      {.type = OPTION_INTEGER, .short_name = 'n', .long_name = "native", .value = &num, .help = "number"},
      {.type = OPTION_END},
  };
};

const char kTableUsage[] =
    "usage: kestrel test [options]\n"
    "    -b,--bit              a bit\n"
    "    -r,--rand             count\n"
    "    -s,--str              text\n"
    "    -n,--native           number\n"
    "\n";

// Parses as a command does (argv[0] is the sub-command word); returns the arguments left.
std::vector<std::string> parse(std::vector<const char*> args, const option* options) {
  args.insert(args.begin(), "test");
  args.push_back(nullptr);
  int n = parse_options(static_cast<int>(args.size()) - 1, args.data(), options, kUsage);
  EXPECT_EQ(args[n], nullptr);
  return {args.begin(), args.begin() + n};
}

TEST(ParseOptions, StoresEachKindOfValueAndStopsWhereItMust) {
  struct Case { std::vector<const char*> args; std::vector<std::string> rest; int bits, count, num; std::string str, err = ""; };
  const Case cases[] = {
      {{"-b", "--bit"}, {}, 4, 0, -1, "(none)"},
      {{"-r", "--rand", "-r"}, {}, 0, 3, -1, "(none)"},
      {{"-sfoo"}, {}, 0, 0, -1, "foo"},
      {{"-s", "-x"}, {}, 0, 0, -1, "-x"},  // the next argument whatever it looks like
      {{"--str=a=b"}, {}, 0, 0, -1, "a=b"},
      {{"--str", "bar"}, {}, 0, 0, -1, "bar"},
      {{"--native", ""}, {}, 0, 0, 0, "(none)"},  // empty text converts to 0 without error
      {{"--bit=x", "--str"}, {}, 4, 0, -1, "x"},    // a refused long value waits for the next one
      {{"a", "-r", "b", "--", "-r", "c"}, {"a", "b", "--", "-r", "c"}, 0, 1, -1, "(none)"},
      {{"-", "-n", "3"}, {"-"}, 0, 0, 3, "(none)"},
      // Text after a switch letter is reported and parsing goes on.
      {{"-rX", "-n", "2", "z"}, {"z"}, 0, 1, 2, "(none)", "error: parse_options_step.\n"},
      // An unknown option stops parsing and stays an argument; long names are not abbreviated
      // and match only whole ("--native5" is not "--native").
      {{"--nat", "-r"}, {"--nat", "-r"}, 0, 0, -1, "(none)"},
      {{"--native5", "-r"}, {"--native5", "-r"}, 0, 0, -1, "(none)"},
      {{"x", "-q", "-r", "y"}, {"x", "-q", "-r", "y"}, 0, 0, -1, "(none)"},
  };
  for (const Case& c : cases) {
    Values v;
    SCOPED_TRACE(testing::PrintToString(c.args));
    testing::internal::CaptureStderr();
    EXPECT_EQ(parse(c.args, v.table.data()), c.rest);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), c.err);
    EXPECT_EQ(std::vector<int>({v.bits, v.count, v.num}), std::vector<int>({c.bits, c.count, c.num}));
    EXPECT_EQ(v.str, c.str);
  }
}

// Each bad command line prints its message, then the usage, and exits with 129.
TEST(ParseOptionsDeathTest, BadValuesPrintMessageAndUsage) {
  const std::pair<std::vector<const char*>, std::string> cases[] = {
      {{"-n"}, "error: switch 'n' requires a value\n"},
      {{"--native"}, "error: option 'native' requires a value\n"},
      {{"-n", "12x"}, "error: switch 'n' expects a numerical value\n"},
      {{"--native=abc"}, "error: option 'native' expects a numerical value\n"},
      {{"--rand=1"}, "error: option 'rand' takes no value\n"},
      {{"--help", "-r"}, ""},
  };
  for (const auto& [args, message] : cases) {
    Values v;
    EXPECT_EXIT(parse(args, v.table.data()), ExitedWithCode(129), Eq(message + kTableUsage)) << args[0];
  }
}

TEST(Report, ErrorAndDieCutMessagesAt1023Characters) {
  const std::string longer(2000, 'x');
  testing::internal::CaptureStderr();
  EXPECT_EQ(error("%s", longer.c_str()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error: " + longer.substr(0, 1023) + "\n");
  EXPECT_EXIT(die("%s tail", longer.c_str()), ExitedWithCode(129), Eq("fatal: " + longer.substr(0, 1023) + "\n"));
}

TEST(TerminalSize, EnvironmentOverrides) {
  setenv("COLUMNS", "123", 1);
  setenv("LINES", "45", 1);
  unsigned cols = 0, rows = 0;
  EXPECT_TRUE(tarvo::kestrel::term::terminal_size(&cols, &rows));
  EXPECT_EQ(std::make_pair(cols, rows), std::make_pair(123u, 45u));
  unsetenv("COLUMNS"), unsetenv("LINES");
}

}  // namespace
