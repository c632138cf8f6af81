// SPDX-License-Identifier: Apache-2.0
// The maps reader on fixtures: every field of a mapping line, names with blanks, bad lines.
#include <stdint.h>

#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "libs/kestrel/maps.h"
#include "tests/support/log_capture.h"

namespace {

using tarvo::kestrel::maps::Vma;
using Fields = std::tuple<uint64_t, uint64_t, uint64_t, uint16_t, uint64_t, std::string>;
constexpr uint16_t R = tarvo::kestrel::maps::kVmaRead, W = tarvo::kestrel::maps::kVmaWrite,
                   X = tarvo::kestrel::maps::kVmaExec;

TEST(MapsReader, WalksFixturesInOneBufferAndLogsTheFirstBadLine) {
  const std::vector<Fields> sample = {  // start, end, offset, flags, inode, name
      {0x5581e4a02000, 0x5581e4a07000, 0x2000, R | X, 1317021, "/usr/bin/sleep"},
      {0x5581e4a0b000, 0x5581e4a0c000, 0xa000, R | W, 1317021, "/usr/bin/sleep"},
      {0x7f3a10000000, 0x7f3a10100000, 0, R | W, 2050, "/dev/zero (deleted)"},
      {0x7f3a10200000, 0x7f3a10201000, 0, W, 0, ""},
      {0x7f3a10400000, 0x7f3a10401000, 0x1000, R, 4294967301, "/data/app/My App/base.apk"},
      {0x7ffc1a2b3000, 0x7ffc1a2d4000, 0, R | W, 0, "[stack]"},
  };  // the vsyscall page is left out
  const std::string dir = std::string(KESTREL_FIXTURES) + "/compact/";
  const struct {
    const char* file;
    bool ok;
    std::vector<Fields> vmas;
    std::string log;  // without each message's "maps.cpp:<line> "
  } cases[] = {
      // Its last line has no newline: a file cut short still yields its last mapping.
      {"maps_malformed", false,
       {{0x400000, 0x401000, 0, R | X, 17, "/bin/a"}, {0x409000, 0x40a000, 0, R | W, 0, ""}},
       dir + "maps_malformed:2 is not a mapping\n"},
      {"maps_sample", true, sample, ""},
      {"no_such_maps", false, {},
       "cannot open " + dir + "no_such_maps: No such file or directory\n"},
  };
  static const std::regex kWhere("^maps\\.cpp:[0-9]+ ");
  std::string buffer;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    kestrel_test::clear_log();
    std::vector<Fields> got;
    const auto take = [&](const Vma& v) {
      got.emplace_back(v.start, v.end, v.offset, v.flags, v.inode, v.name);
      return true;
    };
    EXPECT_EQ(tarvo::kestrel::maps::ForEachVmaFromFile(dir + c.file, take, buffer), c.ok);
    EXPECT_EQ(got, c.vmas);
    std::string log;
    for (const auto& line : kestrel_test::logged()) {
      log += std::regex_replace(line.message, kWhere, "") + "\n";
    }
    EXPECT_EQ(log, c.log);
  }
}

}  // namespace
