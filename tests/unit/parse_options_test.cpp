// The option parser and the reporting functions: value kinds, where parsing stops, the pending
// long value, error texts, the usage layout and the 1023-character cut.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "parse-options/parse-options.h"

namespace {

using ::testing::ElementsAreArray;
using ::testing::Eq;
using ::testing::ExitedWithCode;

const char* const kUsage[] = {"kestrel test [options]", nullptr};

// A table with one option of each kind the commands use.
struct Values {
  int bits = 0;
  int count = 0;
  const char* str = nullptr;
  int num = -1;
};

std::vector<option> table(Values* v) {
  return {
      {.type = OPTION_BIT, .short_name = 'b', .long_name = "bit", .value = &v->bits, .help = "a bit", .defval = 4},
      {.type = OPTION_COUNTUP, .short_name = 'r', .long_name = "rand", .value = &v->count, .help = "count"},
      {.type = OPTION_STRING, .short_name = 's', .long_name = "str", .value = &v->str, .help = "text"},
      {.type = OPTION_INTEGER, .short_name = 'n', .long_name = "native", .value = &v->num, .help = "number"},
      {.type = OPTION_END},
  };
}

struct Parsed {
  int n;
  std::vector<std::string> rest;
};

// argv[0] is the sub-command word, as the dispatcher passes it.
Parsed parse(std::vector<const char*> args, const option* options) {
  args.insert(args.begin(), "test");
  int argc = static_cast<int>(args.size());
  args.push_back(nullptr);
  Parsed p{parse_options(argc, args.data(), options, kUsage), {}};
  for (int i = 0; i < p.n; i++) p.rest.push_back(args[i]);
  EXPECT_EQ(args[p.n], nullptr);
  return p;
}

const char kTableUsage[] =
    "usage: kestrel test [options]\n"
    "    -b,--bit              a bit\n"
    "    -r,--rand             count\n"
    "    -s,--str              text\n"
    "    -n,--native           number\n"
    "\n";

TEST(ParseOptions, StoresEachKindOfValue) {
  struct Case {
    std::vector<const char*> args;
    int bits, count, num;
    const char* str;
  };
  const Case cases[] = {
      {{"-b", "--bit"}, 4, 0, -1, nullptr},
      {{"-r", "--rand", "-r"}, 0, 3, -1, nullptr},
      {{"-sfoo"}, 0, 0, -1, "foo"},
      {{"-s", "-x"}, 0, 0, -1, "-x"},  // the next argument is taken whatever it looks like
      {{"--str=a=b"}, 0, 0, -1, "a=b"},
      {{"--str", "bar"}, 0, 0, -1, "bar"},
      {{"-n5"}, 0, 0, 5, nullptr},
      {{"-n", "-12"}, 0, 0, -12, nullptr},
      {{"--native=7"}, 0, 0, 7, nullptr},
      {{"--native", ""}, 0, 0, 0, nullptr},  // empty text converts to 0 without error
  };
  for (const Case& c : cases) {
    Values v;
    auto opts = table(&v);
    Parsed p = parse(c.args, opts.data());
    SCOPED_TRACE(c.args[0]);
    EXPECT_EQ(p.n, 0);
    EXPECT_EQ(v.bits, c.bits);
    EXPECT_EQ(v.count, c.count);
    EXPECT_EQ(v.num, c.num);
    if (c.str == nullptr) {
      EXPECT_EQ(v.str, nullptr);
    } else {
      EXPECT_STREQ(v.str, c.str);
    }
  }
}

TEST(ParseOptions, KeepsPlainArgumentsInOrderAndDoubleDashWithTheRest) {
  Values v;
  auto opts = table(&v);
  Parsed p = parse({"a", "-r", "b", "--", "-r", "c"}, opts.data());
  EXPECT_THAT(p.rest, ElementsAreArray({"a", "b", "--", "-r", "c"}));
  EXPECT_EQ(v.count, 1);

  Parsed dash = parse({"-", "-n", "3"}, opts.data());
  EXPECT_THAT(dash.rest, ElementsAreArray({"-"}));
  EXPECT_EQ(v.num, 3);
}

TEST(ParseOptions, NoArgumentsLeavesNothing) {
  Values v;
  auto opts = table(&v);
  Parsed p = parse({}, opts.data());
  EXPECT_EQ(p.n, 0);
}

TEST(ParseOptions, UnknownOptionStopsParsingAndStaysAnArgument) {
  struct Case {
    std::vector<const char*> args;
    std::vector<std::string> rest;
  };
  const Case cases[] = {
      {{"--nat", "-r"}, {"--nat", "-r"}},            // no abbreviations
      {{"--native5", "-r"}, {"--native5", "-r"}},    // a long name ends on a word boundary
      {{"x", "-q", "-r", "y"}, {"x", "-q", "-r", "y"}},
  };
  for (const Case& c : cases) {
    Values v;
    auto opts = table(&v);
    Parsed p = parse(c.args, opts.data());
    EXPECT_EQ(p.rest, c.rest);
    EXPECT_EQ(v.count, 0);
  }
}

TEST(ParseOptions, EmptyTableStopsAtAnyOption) {
  const option none[] = {{.type = OPTION_END}};
  Parsed p = parse({"a", "-n", "b", "--x"}, none);
  EXPECT_THAT(p.rest, ElementsAreArray({"a", "-n", "b", "--x"}));
  Parsed q = parse({"--long", "a"}, none);
  EXPECT_THAT(q.rest, ElementsAreArray({"--long", "a"}));
}

TEST(ParseOptions, PendingLongValueCarriesToTheNextLongOption) {
  Values v;
  auto opts = table(&v);
  Parsed p = parse({"--bit=x", "--str"}, opts.data());
  EXPECT_EQ(p.n, 0);
  EXPECT_EQ(v.bits, 4);
  EXPECT_STREQ(v.str, "x");
}

TEST(ParseOptions, PrefixLongNameMatchesOnlyOnWordBoundary) {
  int a = 0, ab = 0;
  const option opts[] = {
      {.type = OPTION_COUNTUP, .long_name = "a", .value = &a, .help = ""},
      {.type = OPTION_COUNTUP, .long_name = "ab", .value = &ab, .help = ""},
      {.type = OPTION_END},
  };
  parse({"--ab", "--a"}, opts);
  EXPECT_EQ(a, 1);
  EXPECT_EQ(ab, 1);
}

TEST(ParseOptions, LeftoverTextAfterASwitchIsReportedAndParsingGoesOn) {
  Values v;
  auto opts = table(&v);
  testing::internal::CaptureStderr();
  Parsed p = parse({"-rX", "-n", "2", "z"}, opts.data());
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error: parse_options_step.\n");
  EXPECT_EQ(v.count, 1);
  EXPECT_EQ(v.num, 2);
  EXPECT_THAT(p.rest, ElementsAreArray({"z"}));
}

// Each bad command line prints its message, then the usage, and exits with 129.
TEST(ParseOptionsDeathTest, BadValuesPrintMessageAndUsage) {
  struct Case {
    std::vector<const char*> args;
    std::string message;
  };
  const Case cases[] = {
      {{"-n"}, "error: switch 'n' requires a value\n"},
      {{"--native"}, "error: option 'native' requires a value\n"},
      {{"-n", "12x"}, "error: switch 'n' expects a numerical value\n"},
      {{"--native=abc"}, "error: option 'native' expects a numerical value\n"},
      {{"--rand=1"}, "error: option 'rand' takes no value\n"},
      {{"--str"}, "error: option 'str' requires a value\n"},
      {{"-h"}, ""},
      {{"--help", "-r"}, ""},
      {{"-hx"}, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.args[0]);
    EXPECT_EXIT(
        {
          Values v;
          auto opts = table(&v);
          parse(c.args, opts.data());
        },
        ExitedWithCode(129), Eq(c.message + kTableUsage));
  }
}

TEST(ParseOptionsDeathTest, HelpWinsEvenWithAnEmptyTable) {
  const option none[] = {{.type = OPTION_END}};
  EXPECT_EXIT(parse({"-h"}, none), ExitedWithCode(129), Eq("usage: kestrel test [options]\n\n"));
}

TEST(ParseOptionsDeathTest, InvalidOptionTypeIsABug) {
  int x = 0;
  const option bad[] = {
      {.type = 4, .short_name = 'x', .value = &x, .help = ""},
      {.type = OPTION_END},
  };
  EXPECT_EXIT(parse({"-x"}, bad), ExitedWithCode(129),
              Eq("should not happen, someone must be hit on the forehead"));
}

TEST(Usage, PadsHelpToColumn27AndWrapsLongNames) {
  int x = 0;
  const option opts[] = {
      {.type = OPTION_COUNTUP, .short_name = 'p', .value = &x, .help = "short only"},
      {.type = OPTION_COUNTUP, .long_name = "clear-scene", .value = &x, .help = ""},
      {.type = OPTION_COUNTUP, .short_name = 'a', .long_name = "abcdefghijklmno", .value = &x, .help = "24 wide"},
      {.type = OPTION_COUNTUP, .short_name = 'a', .long_name = "abcdefghijklmnop", .value = &x, .help = "25 wide"},
      {.type = OPTION_END},
  };
  testing::internal::CaptureStderr();
  EXPECT_EQ(usage_with_options_internal(kUsage, opts), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "usage: kestrel test [options]\n"
            "    -p                    short only\n"
            "    --clear-scene         \n"
            "    -a,--abcdefghijklmno  24 wide\n"
            "    -a,--abcdefghijklmnop\n"
            "                          25 wide\n"
            "\n");

  testing::internal::CaptureStderr();
  EXPECT_EQ(usage_with_options_internal(nullptr, opts), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Report, ErrorAndDieCutMessagesAt1023Characters) {
  const std::string longer(2000, 'x');
  testing::internal::CaptureStderr();
  EXPECT_EQ(error("%s", longer.c_str()), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "error: " + longer.substr(0, 1023) + "\n");

  EXPECT_EXIT(die("%s tail", longer.c_str()), ExitedWithCode(129),
              Eq("fatal: " + longer.substr(0, 1023) + "\n"));
  EXPECT_EXIT(die("cannot get kestrel version."), ExitedWithCode(129),
              Eq("fatal: cannot get kestrel version.\n"));
}

TEST(TerminalSize, EnvironmentOverridesAndUnknownCountsAreNotWritten) {
  setenv("COLUMNS", "123", 1);
  setenv("LINES", "45", 1);
  unsigned cols = 0, rows = 0;
  EXPECT_TRUE(tarvo::kestrel::term::terminal_size(&cols, &rows));
  EXPECT_EQ(cols, 123u);
  EXPECT_EQ(rows, 45u);
  EXPECT_TRUE(tarvo::kestrel::term::terminal_size(nullptr, nullptr));
  unsetenv("COLUMNS");
  unsetenv("LINES");
}

}  // namespace
