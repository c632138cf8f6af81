// SPDX-License-Identifier: Apache-2.0
// The kmalloc debug switches, run on plain files in a temporary folder standing in for
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

// The messages logged since the last call; "?" marks one that is not an error of tag "kestrel".
std::string log() {
  std::string all;
  for (const auto& l : kestrel_test::logged()) {
    all += (l.priority == 6 && l.tag == "kestrel" ? "" : "?") + l.message;
  }
  kestrel_test::clear_log();
  return all;
}

class SlabDebug : public ::testing::Test {
 protected:
  SlabDebug() { kestrel_test::clear_log(); }
  TemporaryDir dir_;
  SlabDebugPaths paths_ = {
      .enable = dir_.path + "/enable"s, .create = dir_.path + "/create"s, .dump = dir_.path + "/dump"s};
};

// Already on is a failure: a second daemon leaves the slab monitor off. A symbolic link in place
// of the switch is refused, not followed, and errno still holds the reason after the log line.
TEST_F(SlabDebug, EnableWritesOnlyAChangeOfState) {
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
  ASSERT_TRUE(android::base::WriteStringToFile("0", paths_.dump));
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    unlink(paths_.enable.c_str());
    ASSERT_TRUE(c.before != "->" || symlink(paths_.dump.c_str(), paths_.enable.c_str()) == 0);
    ASSERT_TRUE(c.before[0] == '-' || android::base::WriteStringToFile(c.before, paths_.enable));
    errno = 0;
    EXPECT_EQ(slab_debug_enable(true, paths_), c.ok);
    if (!c.ok) {
      EXPECT_EQ(errno, c.err);
    }
    EXPECT_EQ(get(paths_.enable), c.after);
    EXPECT_EQ(log(), c.log);
  }
}

// Only the eight size caches are asked for (the daemon asks for each, see its e2e test); any
// other name is refused and logged before anything is written.
TEST_F(SlabDebug, CreateTakesOnlyTheEightSizeCaches) {
  for (const char* bad : {"640", "6", "16384", "", "64\n", " 64"}) {
    EXPECT_FALSE(slab_debug_create(bad, paths_)) << bad;
    EXPECT_EQ(log(), "sys-memstat.cpp:50 invalid slab name "s + bad + "\n");
  }
  EXPECT_EQ(get(paths_.create), "<missing>");
}

}  // namespace
