// SPDX-License-Identifier: Apache-2.0
// The kmalloc debug enable switch, run on plain files in a temporary folder standing in for
// /proc/tarvo_healthinfo: what is written, what is left alone and the exact log lines.
#include <unistd.h>

#include <string>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "libs/kestrel/sys-memstat.h"
#include "tests/support/log_capture.h"

namespace {

using namespace std::string_literals;
using namespace tarvo::kestrel::memstat;

std::string get(const std::string& path) {
  std::string content;
  return android::base::ReadFileToString(path, &content, true) ? content : "<missing>";
}

// Already on is a failure: a second daemon leaves the slab monitor off. A symbolic link in place
// of the switch is refused, not followed, and errno still holds the reason after the log line.
TEST(SlabDebug, EnableWritesOnlyAChangeOfState) {
  TemporaryDir dir;
  const SlabDebugPaths paths = {.enable = dir.path + "/enable"s, .create = "", .dump = dir.path + "/dump"s};
  const std::string read_failed = "sys-memstat.cpp:27 read slab debug enable failed, reason: ";
  const std::string write_failed = "sys-memstat.cpp:34 write slab debug enable failed, reason: ";
  // before: "-" no file, "->" a link to the dump file, which holds "0".
  const struct { std::string before; bool ok; const char* after; int err; std::string log; } cases[] = {
      {"0", true, "1", 0, ""},
      {"1\n", false, "1\n", 0, write_failed + "Success\n"},
      {"", false, "", 0, read_failed + "Success\n"},
      {"-", false, "<missing>", ENOENT, read_failed + "No such file or directory\n"},
      {"->", false, "0", ELOOP, read_failed + "Too many levels of symbolic links\n"},
  };
  ASSERT_TRUE(android::base::WriteStringToFile("0", paths.dump));
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    kestrel_test::clear_log();
    unlink(paths.enable.c_str());
    ASSERT_TRUE(c.before != "->" || symlink(paths.dump.c_str(), paths.enable.c_str()) == 0);
    ASSERT_TRUE(c.before[0] == '-' || android::base::WriteStringToFile(c.before, paths.enable));
    errno = 0;
    EXPECT_EQ(slab_debug_enable(true, paths), c.ok);
    if (!c.ok) {
      EXPECT_EQ(errno, c.err);
    }
    EXPECT_EQ(get(paths.enable), c.after);
    // "?" marks a message that is not an error of tag "kestrel".
    std::string log;
    for (const auto& l : kestrel_test::logged()) log += (l.priority == 6 && l.tag == "kestrel" ? "" : "?") + l.message;
    EXPECT_EQ(log, c.log);
  }
}

}  // namespace
