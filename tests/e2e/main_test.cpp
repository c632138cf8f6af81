// SPDX-License-Identifier: Apache-2.0
// The dispatcher and `version`, run as the shipped binary: the command list, unknown words, the
// driver's version through the simulator.
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

const char kCommandList[] =
    "kestrel is a command line tool for debugging memory\n\n"
    "These are kestrel commands used in various situations:\n"
    "   version        show current version.\n"
    "   meminfo        show pid memory usage.\n"
    "   compact        compact process\n"
    "   malloc-debug   enable procs malloc debug (64bit only)\n"
    "   logger         dump kestrel logger.\n"
    "   mem-stress     memory stress test.\n"
    "   aging          start a aging daemon.\n"
    "   utils          misc utilities.\n"
    "   config         get or set memory options\n";

TEST(Dispatcher, NoArgumentsListsCommandsAndExitsOne) {
  Result r = run_kestrel({});
  EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tuple(kCommandList, "", 1));
}

TEST(Dispatcher, OnlyTheExactWordIsACommand) {
  for (const char* word : {"Version", "versio", "versions", "-h", "--help", ""}) {
    Result r = run_kestrel({word, "version"});
    EXPECT_EQ(std::tie(r.out, r.err, r.status),
              std::tuple("", kestrel_binary() + ": '" + word + "' is not a kestrel command.\n", 1));
  }
}

TEST(Version, AsksTheDriver) {
  struct Case { std::string scenario; std::vector<std::string> args; std::string out, err, trace; };
  const std::string fatal = "fatal: cannot get kestrel version.\n", asked = "open O_RDONLY\n0xFA01\n";
  const Case cases[] = {
      {"version 131077\n", {"version", "extra", "words"}, "kestrel version 2.5\n", "", asked},
      {"eintr open\neintr 0xFA01\nversion 65539\n", {"version"}, "kestrel version 1.3\n", "",
       "open O_RDONLY\nopen O_RDONLY\n0xFA01\n0xFA01\n"},
      {"device absent\n", {"version"}, "", fatal, "open O_RDONLY\n"},
      {"fail 0xFA01 ENOTTY\n", {"version"}, "", fatal, asked},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    TempDir dir;
    Result r = run_kestrel(c.args, {.scenario = c.scenario + "trace " + dir.file("trace") + "\n"});
    EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tuple(c.out, c.err, c.err.empty() ? 0 : 129));
    EXPECT_EQ(dir.read("trace"), c.trace);
  }
}

}  // namespace
}  // namespace kestrel_e2e
