// SPDX-License-Identifier: Apache-2.0
// The memory configuration: loading the XML file over a tier's defaults, read_file,
// the system-state report on fixture trees. Printouts are proven end to end.
#include <stdio.h>
#include <stdlib.h>

#include <functional>
#include <regex>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "libs/kestrel/config.h"

namespace {

using namespace tarvo::kestrel::config;

constexpr uint32_t kGiB = 1024 * 1024;  // in KiB
const std::string kDir = KESTREL_FIXTURES "/config/";

std::string printed(const std::function<void(FILE*)>& print) {
  char* buf = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&buf, &size);
  print(out);
  fclose(out);
  std::string text(buf, size);
  free(buf);
  return text;
}

// Every field, the way `config --load all` prints it, so that failures read well.
std::string shown(const Configure& cfg) {
  return "ram " + std::to_string(cfg.ram) + "\n" +
         printed([&](FILE* out) { show_config(cfg, true, true, true, out); });
}

TEST(LoadConfig, ReadsTheTierSectionOverItsDefaultsOrFailsWithOneMessage) {
  const std::string groups = kDir + "groups.xml", invalid = kDir + "invalid_values.xml",
                    sample = KESTREL_FIXTURES "/../../examples/tarvo_mm_config.xml";
  const struct {
    std::string path;
    int tier;
    Configure expected;
    std::string err;  // a failed load prints only this
  } cases[] = {
      {groups, 8, {6000, 1500, 4000, 0, "zstd", {1000, 2000, 3000, "lzo-rle", "zstd"}, 99, 77, 8}},
      {groups, 12, {4096, 2048, 0, 1, "lz4", {7168, 7168, 7168, "lz4", "lz4hc"}, 160, 30, 12}},
      {groups, 1, {768, 2048, 111, 1, "lz4", {0, 0, 0, "lz4", "zstdn"}, 160, 60, 1}},
      // The shipped example, in the section of the tier beyond the table.
      {sample, -1, {8192, 4096, 8192, 1, "zstd", {8704, 8192, 8704, "lz4", "zstd"}, 200, 100, -1}},
      {kDir + "not_well_formed.xml", 1, {},
       "error: failed to open/parse XML file " + kDir + "not_well_formed.xml Error=XML_ERROR_"
       "MISMATCHED_ELEMENT ErrorID=14 (0xe) Line number=3: XMLElement name=memory_1g\n\n"},
      {kDir + "no_config.xml", 1, {}, "error: no <config> element found\n\n"},
      {groups, 16, {}, "error: no <memory_16g> element found\n\n"},
      {invalid, 1, {}, "error: invalid disk_size_mb value\n\n"},
      {invalid, 2, {}, "error: invalid comp_algorithm value\n\n"},
  };
  for (const auto& c : cases) {
    Configure cfg;
    std::string err;
    EXPECT_EQ(load_config(c.path, c.tier, &cfg, &err), c.err.empty() ? 0 : -1) << c.path << " " << c.tier;
    EXPECT_EQ(err.empty() ? "" : "error: " + err + "\n", c.err) << c.path << " " << c.tier;
    if (!c.err.empty()) continue;
    EXPECT_EQ(shown(cfg), shown(c.expected)) << c.path << " " << c.tier;
  }
}

TEST(ReadFile, MakesOnePrintableLine) {
  const std::pair<std::string, std::string> cases[] = {
      {"one_line", "4\n"}, {"two_lines", "a b\n"}, {"no_newline", "x\n"}, {"embedded_nul", "ab\n"},
      {"empty", "\n"}, {"blank_lines", " \n"}, {"missing", "N/A\n"},
  };
  for (auto [name, want] : cases) EXPECT_EQ(read_file(kDir + "read_file/" + name), want) << name;
}

ReportPaths paths_under(const std::string& root) {
  ReportPaths p = ReportPaths::Device();
  for (std::string* path : {&p.proc_version, &p.chp_enabled, &p.vm_dir, &p.mm_dir,
                            &p.zram_prefix, &p.boost_pool_dir, &p.tarvo_mem_dir})
    *path = root + *path;  // the device paths, moved under root
  p.libc = kDir + "read_file/one_line";  // not ELF: readelf prints nothing, installed or not
  return p;
}

TEST(SystemReport, MatchesGoldenForEachPlatform) {
  const struct {
    std::string root;
    std::vector<std::pair<std::string, std::string>> properties;
    uint32_t total_kib;
    std::string golden;
  } cases[] = {
      {kDir + "sysroot",
       // A property of each of the two places they print; the rest show N/A under their names.
       {{"ro.soc.model", "MT6989"}, {"sys.sysctl.extra_free_kbytes", "24300"},
        {"persist.sys.tarvo.nandswap.swapsize.curr", "4"}},
       7969177, "report_mtk.txt"},
      {kDir + "sysroot", {{"ro.soc.model", "SM8650"}}, 12 * kGiB, "report_other_soc.txt"},
      {kDir + "sysroot", {{"ro.soc.model", "X"}}, 3 * kGiB, "report_one_letter_soc.txt"},
      {kDir + "no_such_root", {}, kGiB / 2, "report_bare.txt"},
  };
  // The allocator's answers and the heap probe depend on the C library and on sanitizers.
  const std::regex machine_value(R"((\n  (?:M_\w+\(-?\d\)|heap_zero_init): )-?\d+(?=\n))");
  for (const auto& c : cases) {
    for (const auto& [name, value] : c.properties) android::base::SetProperty(name, value);
    std::string report = printed([&](FILE* out) {
      show_system_report(c.total_kib, paths_under(c.root), out);
    });
    for (const auto& [name, value] : c.properties) android::base::SetProperty(name, "");
    std::string golden;
    android::base::ReadFileToString(kDir + c.golden, &golden);
    EXPECT_EQ(std::regex_replace(report, machine_value, "$1#"), golden) << c.golden;
  }
}

TEST(SystemReport, RefusesRamBeyondTheTierTable) {
  bool ok = true;
  EXPECT_EQ(printed([&](FILE* out) { ok = show_system_report(24 * kGiB, ReportPaths(), out); }),
            "[sys]\n");
  EXPECT_FALSE(ok);
}

}  // namespace
