#include <gtest/gtest.h>

#include "parse-options/parse-options.h"

TEST(ParseOptions, Smoke) {
  int n = 0;
  const option options[] = {
      {.type = OPTION_INTEGER, .short_name = 'n', .long_name = "native", .value = &n, .help = "x"},
      {.type = OPTION_END},
  };
  const char* argv[] = {"cmd", "-n", "5", "rest", nullptr};
  const char* const usage[] = {"u", nullptr};
  EXPECT_EQ(parse_options(4, argv, options, usage), 1);
  EXPECT_EQ(n, 5);
}
