// SPDX-License-Identifier: Apache-2.0
// `kestrel config` as a user runs it: --load on this machine's tier section, the default file
// path inside the sandbox, usage and failure statuses, and --list wired to the system report
// (whose every line the unit tests compare on fixture trees).
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"

namespace {

using kestrel_e2e::Result;

const kestrel_e2e::RunOptions kNoSimulator = {.simulator = false};

// A file whose every tier section holds `groups`, so this machine's tier finds them.
std::string config_xml(const std::string& groups) {
  std::string sections;
  for (const char* tier : {"1", "2", "3", "4", "6", "8", "12", "16", "24", "-1"}) {
    std::string name = std::string("memory_") + tier + "g>";
    sections += "<" + name + groups + "</" + name;
  }
  return "<config>" + sections + "</config>\n";
}

// Every key with a value of its own, in the vendor file's order, which the printout does not keep.
const char kEveryKey[] =
    "<zram_opt><vm_swappiness>11</vm_swappiness><direct_swappiness>12</direct_swappiness>"
    "</zram_opt><zram0><disk_size_mb>13</disk_size_mb><increase_limit>14</increase_limit>"
    "<hybridswap_enable>0</hybridswap_enable><limit_size>15</limit_size>"
    "<comp_algorithm>zstd</comp_algorithm></zram0><chp_zram>"
    "<zram0_disk_size_mb>16</zram0_disk_size_mb><zram1_disk_size_mb>17</zram1_disk_size_mb>"
    "<zram0_comp_algorithm>lzo</zram0_comp_algorithm>"
    "<zram1_comp_algorithm>lz4hc</zram1_comp_algorithm><limit_size>18</limit_size></chp_zram>";
const std::string kZramOpt = "[zram_opt]\nvm_swappiness: 11\ndirect_swappiness: 12\n\n";
const std::string kZram0 =
    "[zram0]\ndisk_size_mb: 13\ncomp_algorithm: zstd\nlimit_size: 15\nincrease_limit: 14\n"
    "hybridswap_enable: 0\n\n";
const std::string kChpZram =
    "[chp_zram]\nzram0_disk_size_mb: 16\nzram0_comp_algorithm: lzo\nzram1_disk_size_mb: 17\n"
    "zram1_comp_algorithm: lz4hc\nlimit_size: 18\n\n";
const std::string kUsage =
    "usage: kestrel config [options] [--]\n"
    "    --list                print all memory options\n"
    "    --load                load [all|zram_opt|zram0|chp_zram] options\n"
    "    --file                configuration file path\n"
    "\n";

TEST(ConfigE2E, LoadPrintsTheChosenGroupsOrEndsWithItsStatus) {
  kestrel_e2e::TempDir dir;
  std::string file = dir.write("every_key.xml", config_xml(kEveryKey));
  // The whole section is read whatever the group: an invalid chp value fails a zram0 load.
  std::string bad_chp = dir.write("bad_chp.xml", config_xml(
      "<zram0><disk_size_mb>100</disk_size_mb></zram0><chp_zram><limit_size>none</limit_size>"
      "</chp_zram>"));
  const struct {
    std::vector<std::string> args;
    std::string out, err;
    int status;
  } cases[] = {
      {{"--load", "all", "--file", file}, kZramOpt + kZram0 + kChpZram, "", 0},
      {{"--load", "zram_opt", "--file", file}, kZramOpt, "", 0},
      {{"--load", "chp_zram", "--file", file}, kChpZram, "", 0},
      {{}, "", kUsage, 129},
      {{"--load", "ALL", "--file", "/nonexistent"}, "invalid load option: ALL\n", "", 255},
      {{"--load", "all", "--file", "/nonexistent"}, "",
       "error: failed to open/parse XML file /nonexistent Error=XML_ERROR_FILE_NOT_FOUND ErrorID=3 "
       "(0x3) Line number=0: filename=/nonexistent\n\n", 255},
      {{"--load", "zram0", "--file", bad_chp}, "", "error: invalid limit_size value\n\n", 255},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"config"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    SCOPED_TRACE(testing::PrintToString(args));
    Result r = kestrel_e2e::run_kestrel(args, kNoSimulator);
    EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tie(c.out, c.err, c.status));
  }
}

TEST(ConfigE2E, DefaultFileIsTheVendorConfiguration) {
  KESTREL_REQUIRE_SANDBOX();
  kestrel_e2e::Sandbox sandbox;
  sandbox.write_file("/odm/etc/tarvo_mm_config.xml", config_xml(kEveryKey));
  Result r = sandbox.run({"config", "--load", "zram0"}, kNoSimulator);
  EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tuple(kZram0, "", 0));
}

// --list wins over --load. Nothing of the device is there but /proc/version, so the report is
// the unit tests' bare one but for this machine's own figures (tier, RAM, the allocator's answers);
// from 24 GiB of RAM on it has no tier.
TEST(ConfigE2E, ListIgnoresLoadAndReportsTheSystem) {
  KESTREL_REQUIRE_SANDBOX();
  kestrel_e2e::Sandbox sandbox;
  sandbox.write_file("/proc/version", "Linux version 6.1.75-android14 (build@host) #1 SMP\n");
  Result r = sandbox.run({"config", "--list", "--load", "bogus"}, kNoSimulator);
  if (r.status != 0) {
    EXPECT_EQ(std::tie(r.out, r.err, r.status),
              std::tuple("[sys]\n", "fatal: unsupport ram\n\n", 129));
    return;
  }
  const std::regex machine_value(R"((\n  (?:M_\w+\(-?\d\)|heap_zero_init|ram): )-?\d+(?=G?\n))");
  const std::string bare = kestrel_e2e::read_text(kestrel_e2e::fixtures_dir() + "/config/report_bare.txt");
  const std::string expected = std::regex_replace(bare, std::regex("0\\.0\\.0"), "6.1.75");
  EXPECT_EQ(std::regex_replace(r.out, machine_value, "$1#"),
            std::regex_replace(expected, machine_value, "$1#"));
}

}  // namespace
