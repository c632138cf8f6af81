// SPDX-License-Identifier: Apache-2.0
// Installs the build into a fresh prefix and uses what was installed: the wrapper, given a
// scenario, must find the installed simulator library and the installed kestrel (which must find
// libbase through its install run path), and man must render the installed manual page without
// a warning. The prefix lies where no build tree is within the wrapper's reach, so only the
// installed library can answer.
#include <string>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

TEST(Install, GivesAWorkingKestrelAndManualPage) {
  TempDir prefix;
  const RunOptions plain = {.simulator = false, .env = {"DESTDIR="}};
  Result r = run_program({KESTREL_CMAKE, "--install", KESTREL_BUILD_DIR, "--prefix", prefix.path()}, plain);
  ASSERT_EQ(std::tie(r.err, r.status), std::tuple("", 0)) << r.out;

  r = run_program({prefix.file("bin/kestrel-sim"), "--scenario", prefix.write("scenario", "version 0x30002\n"), "--",
                   "kestrel", "version"}, plain);
  EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tuple("kestrel version 3.2\n", "", 0));

  const Result man = run_program({"/bin/sh", "-c", "command -v man"}, plain);
  if (man.status != 0) GTEST_SKIP() << "no man program to render the manual page with";
  r = run_program({man.out.substr(0, man.out.find('\n')), "--warnings=mac,escape,font", "-l",
                   prefix.file("share/man/man1/kestrel.1")},
                  {.simulator = false, .env = {"LC_ALL=C", "MANWIDTH=80"}});
  EXPECT_THAT(r.out, testing::ContainsRegex("NAME\n +kestrel - memory debugging tool"));
  EXPECT_EQ(std::tie(r.err, r.status), std::tuple("", 0));
}

}  // namespace
}  // namespace kestrel_e2e
