// The memory configuration: RAM tiers, defaults, loading the XML file, read_file, the
// system-state report on a fixture tree, and what `config` logs. The printout of a loaded
// configuration is proven end to end, on the sample file.
#include <stdio.h>
#include <stdlib.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include "cmds/cmds.h"
#include "cmds/config.h"
#include "platform/log.h"
#include "tests/support/log_capture.h"

namespace tarvo::kestrel::config {

// Failures show the record the way `config --load all` prints it.
void PrintTo(const Configure& cfg, std::ostream* os);

}  // namespace tarvo::kestrel::config

namespace {

using namespace tarvo::kestrel::config;

constexpr uint32_t kGiB = 1024 * 1024;  // in KiB
const std::string kDir = KESTREL_FIXTURES "/config/";
const std::string kSample = KESTREL_FIXTURES "/../../examples/tarvo_mm_config.xml";

// Everything written to a FILE*, as text.
class MemoryStream {
 public:
  MemoryStream() : file_(open_memstream(&buf_, &size_)) {}
  ~MemoryStream() {
    fclose(file_);
    free(buf_);
  }
  FILE* get() { return file_; }
  std::string text() {
    fflush(file_);
    return std::string(buf_, size_);
  }

 private:
  char* buf_ = nullptr;
  size_t size_ = 0;
  FILE* file_;
};

std::string shown(const Configure& cfg) {
  MemoryStream out;
  show_config(cfg, true, true, true, out.get());
  return out.text();
}

// Loads with standard error captured; returns the status.
int load_capturing(const std::string& path, int tier, Configure* cfg, std::string* err) {
  testing::internal::CaptureStderr();
  int status = load_config(path, tier, cfg);
  *err = testing::internal::GetCapturedStderr();
  return status;
}

TEST(RamTier, CarriesTheReportedTotalUpToTheNominalSize) {
  const struct {
    uint32_t total_kib;
    int tier;
  } cases[] = {
      // Each line: the least and the most RAM of one tier.
      {0, 1},          {kGiB - 1, 1},
      {kGiB, 2},       {2 * kGiB - 1, 2},
      {2 * kGiB, 3},   {3 * kGiB - 1, 3},
      {3 * kGiB, 4},   {4 * kGiB - 1, 4},
      {4 * kGiB, 6},   {6 * kGiB - 1, 6},
      {6 * kGiB, 8},   {8 * kGiB - 1, 8},   {7969177, 8},  // "8 GiB" reporting 7.6 GiB
      {8 * kGiB, 12},  {12 * kGiB - 1, 12},
      {12 * kGiB, 16}, {16 * kGiB - 1, 16},
      {16 * kGiB, 24}, {24 * kGiB - 1, 24},
      {24 * kGiB, kTierBeyondTable}, {UINT32_MAX, kTierBeyondTable},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ram_tier(c.total_kib), c.tier) << c.total_kib << " KiB";
  }
}

TEST(RamTier, TotalMatchesMemTotalOfProcMeminfo) {
  std::string meminfo;
  ASSERT_TRUE(android::base::ReadFileToString("/proc/meminfo", &meminfo));
  unsigned long mem_total = 0;
  ASSERT_EQ(sscanf(meminfo.c_str(), "MemTotal: %lu kB", &mem_total), 1);
  EXPECT_EQ(total_ram_kib(), mem_total);
}

TEST(LoadConfig, EmptySectionGivesTheDefaultsOfItsTier) {
  const struct {
    int tier;
    int32_t disk_size_mb;
    int32_t chp_size_mb;
  } cases[] = {
      {1, 768, 0},       {2, 1280, 0},     {3, 1536, 0},     {4, 2560, 0},     {6, 3072, 0},
      {8, 5632, 0},      {12, 5632, 7168}, {16, 7680, 8704}, {24, 7680, 8704}, {-1, 7680, 8704},
  };
  for (const auto& c : cases) {
    Configure expected;
    expected.disk_size_mb = c.disk_size_mb;
    expected.increase_limit = 2048;
    expected.limit_size = 0;
    expected.hybridswap_enable = 1;
    expected.comp_algorithm = "lz4";
    expected.chp_zram = {c.chp_size_mb, c.chp_size_mb, c.chp_size_mb, "lz4", "zstdn"};
    expected.vm_swappiness = 160;
    expected.direct_swappiness = 60;
    expected.ram = c.tier;

    Configure cfg;
    std::string err;
    EXPECT_EQ(load_capturing(kDir + "empty_sections.xml", c.tier, &cfg, &err), 0) << c.tier;
    EXPECT_EQ(err, "");
    EXPECT_EQ(cfg, expected) << "tier " << c.tier;
    EXPECT_EQ(Configure::Defaults(c.tier), expected) << "tier " << c.tier;
  }
}

TEST(LoadConfig, KeysOverrideDefaultsOneByOne) {
  const struct {
    const char* file;
    int tier;
    std::function<void(Configure&)> change;
  } cases[] = {
      {"groups.xml", 8,
       [](Configure& c) {
         c.vm_swappiness = 99;
         c.direct_swappiness = 77;
         c.disk_size_mb = 6000;
         c.increase_limit = 1500;
         c.hybridswap_enable = 0;
         c.limit_size = 4000;
         c.comp_algorithm = "zstd";
         c.chp_zram = {1000, 2000, 3000, "lzo-rle", "zstd"};
       }},
      {"groups.xml", 12,
       [](Configure& c) {
         c.direct_swappiness = 30;
         c.disk_size_mb = 4096;
         c.chp_zram.zram1_comp_algorithm = "lz4hc";
       }},
      {"hybridswap.xml", 1, [](Configure& c) { c.hybridswap_enable = 1; }},
      {"hybridswap.xml", 2, [](Configure& c) { c.hybridswap_enable = 0; }},
      {"hybridswap.xml", 3, [](Configure& c) { c.hybridswap_enable = 1; }},
      {"limit_size.xml", 1, [](Configure& c) { c.limit_size = 111; }},
      {"limit_size.xml", 2, [](Configure& c) { c.chp_zram.limit_size = 222; }},
  };
  for (const auto& c : cases) {
    Configure expected = Configure::Defaults(c.tier);
    c.change(expected);
    Configure cfg;
    std::string err;
    EXPECT_EQ(load_capturing(kDir + c.file, c.tier, &cfg, &err), 0) << c.file << " " << c.tier;
    EXPECT_EQ(err, "");
    EXPECT_EQ(cfg, expected) << c.file << " tier " << c.tier;
  }
}

std::string parser_error(const std::string& path) {
  tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  doc.LoadFile(path.c_str());
  return doc.ErrorStr();
}

TEST(LoadConfig, FailuresReportExactlyOneMessage) {
  const std::string missing = kDir + "no_such_file.xml";
  const std::string broken = kDir + "not_well_formed.xml";
  const struct {
    std::string path;
    int tier;
    std::string err;
  } cases[] = {
      {missing, 8,
       "error: failed to open/parse XML file " + missing + " " + parser_error(missing) + "\n\n"},
      {broken, 1,
       "error: failed to open/parse XML file " + broken + " " + parser_error(broken) + "\n\n"},
      {kDir, 1, "error: failed to open/parse XML file " + kDir + " " + parser_error(kDir) + "\n\n"},
      {kDir + "no_config.xml", 1, "error: no <config> element found\n\n"},
      {kDir + "groups.xml", 16, "error: no <memory_16g> element found\n\n"},
      {kDir + "groups.xml", -1, "error: no <memory_-1g> element found\n\n"},
      {kDir + "invalid_values.xml", 1, "error: invalid disk_size_mb value\n\n"},
      {kDir + "invalid_values.xml", 2, "error: invalid comp_algorithm value\n\n"},
      {kDir + "invalid_values.xml", 3, "error: invalid direct_swappiness value\n\n"},
      {kDir + "invalid_values.xml", 4, "error: invalid zram1_comp_algorithm value\n\n"},
      {kDir + "invalid_values.xml", 6, "error: invalid increase_limit value\n\n"},
      {kDir + "limit_size.xml", 3, "error: invalid limit_size value\n\n"},
      {kDir + "limit_size.xml", 4, "error: invalid limit_size value\n\n"},
  };
  for (const auto& c : cases) {
    Configure cfg;
    std::string err;
    EXPECT_EQ(load_capturing(c.path, c.tier, &cfg, &err), -1) << c.path << " " << c.tier;
    EXPECT_EQ(err, c.err);
  }
}

TEST(LoadConfig, SampleLoadsForEveryTier) {
  for (int tier : {1, 2, 3, 4, 6, 8, 12, 16, 24, -1}) {
    Configure cfg;
    std::string err;
    EXPECT_EQ(load_capturing(kSample, tier, &cfg, &err), 0) << "tier " << tier;
    EXPECT_EQ(err, "");
    EXPECT_NE(cfg, Configure::Defaults(tier)) << "tier " << tier << " reads no key";
  }
}

TEST(ReadFile, MakesOnePrintableLine) {
  const struct {
    std::string file;
    std::string expected;
  } cases[] = {
      {"one_line", "4\n"},
      {"two_lines", "a b\n"},
      {"no_newline", "x\n"},
      {"embedded_nul", "ab\n"},
      {"empty", "\n"},
      {"blank_lines", " \n"},
      {"missing", "N/A\n"},
      {"", "N/A\n"},  // the folder itself
  };
  for (const auto& c : cases) {
    EXPECT_EQ(read_file(kDir + "read_file/" + c.file), c.expected) << c.file;
  }
}

// --- the system-state report ------------------------------------------------------------------

ReportPaths paths_under(const std::string& root) {
  ReportPaths paths;
  paths.proc_version = root + "/proc/version";
  paths.chp_enabled = root + "/sys/kernel/mm/chp/enabled";
  paths.vm_dir = root + "/proc/sys/vm/";
  paths.mm_dir = root + "/sys/kernel/mm/";
  paths.zram_prefix = root + "/sys/block/zram";
  paths.boost_pool_dir = root + "/proc/boost_pool/";
  paths.tarvo_mem_dir = root + "/proc/tarvo_mem/";
  // Not an ELF file: readelf prints nothing, whether or not it is installed.
  paths.libc = kDir + "read_file/one_line";
  return paths;
}

// The allocator's answers and the heap probe depend on the C library (and on sanitizers): their
// lines keep their labels and must hold an integer, which becomes "#".
std::string mask_allocator_values(const std::string& report) {
  std::vector<std::string> lines = android::base::Split(report, "\n");
  for (std::string& line : lines) {
    if (!line.starts_with("  M_") && !line.starts_with("  heap_zero_init: ")) continue;
    size_t colon = line.rfind(": ");
    if (colon == std::string::npos) continue;
    std::string value = line.substr(colon + 2);
    char* end = nullptr;
    strtol(value.c_str(), &end, 10);
    if (!value.empty() && *end == '\0') line = line.substr(0, colon + 2) + "#";
  }
  return android::base::Join(lines, "\n");
}

// Sets properties for one case and clears them after: an empty property reads as unset.
class Properties {
 public:
  explicit Properties(std::vector<std::pair<std::string, std::string>> values)
      : values_(std::move(values)) {
    for (const auto& [name, value] : values_) android::base::SetProperty(name, value);
  }
  ~Properties() {
    for (const auto& [name, value] : values_) android::base::SetProperty(name, "");
  }

 private:
  std::vector<std::pair<std::string, std::string>> values_;
};

TEST(SystemReport, MatchesGoldenForEachPlatform) {
  const std::vector<std::pair<std::string, std::string>> all_properties = {
      {"ro.soc.model", "MT6989"},
      {"sys.sysctl.extra_free_kbytes", "24300"},
      {"persist.sys.tarvo.hybridswap_app_memcg", "true"},
      {"persist.sys.tarvo.hybridswap_app_uid_memcg", "false"},
      {"persist.sys.tarvo.nandswap", "1"},
      {"persist.sys.tarvo.nandswap.cfg", "0x3"},
      {"persist.sys.tarvo.nandswap.condition", "idle"},
      {"persist.sys.tarvo.nandswap.err", "0"},
      {"persist.sys.tarvo.nandswap.lvl", "2"},
      {"persist.sys.tarvo.nandswap.storage.min", "4096"},
      {"persist.sys.tarvo.nandswap.swapsize", "6"},
      {"persist.sys.tarvo.nandswap.swapsize.curr", "4"},
  };
  const struct {
    std::string root;
    std::vector<std::pair<std::string, std::string>> properties;
    uint32_t total_kib;
    std::string golden;
  } cases[] = {
      {kDir + "sysroot", all_properties, 7969177, "report_mtk.txt"},
      {kDir + "sysroot", {{"ro.soc.model", "SM8650"}}, 12 * kGiB, "report_other_soc.txt"},
      {kDir + "no_such_root", {}, kGiB / 2, "report_bare.txt"},
      {kDir + "sysroot", {{"ro.soc.model", "X"}}, 3 * kGiB, "report_one_letter_soc.txt"},
  };
  for (const auto& c : cases) {
    Properties set(c.properties);
    MemoryStream out;
    show_system_report(c.total_kib, paths_under(c.root), out.get());
    std::string golden;
    ASSERT_TRUE(android::base::ReadFileToString(kDir + c.golden, &golden)) << c.golden;
    EXPECT_EQ(mask_allocator_values(out.text()), golden) << c.golden;
  }
}

TEST(SystemReportDeathTest, RefusesRamBeyondTheTierTable) {
  MemoryStream out;
  EXPECT_EXIT(show_system_report(24 * kGiB, paths_under(kDir + "sysroot"), out.get()),
              testing::ExitedWithCode(129), "^fatal: unsupport ram\n\n$");
}

// --- the command's log lines ----------------------------------------------------------------

TEST(ConfigCommand, LogsEntryAndTheExitOfALoad) {
  const std::string file = kDir + "empty_sections.xml";
  const struct {
    std::vector<const char*> args;
    int status;
    std::optional<std::string> out;  // not compared for the report
    std::vector<std::string> log;
  } cases[] = {
      {{"config", "--load", "ALL"}, -1, "invalid load option: ALL\n",
       {"config enter", "config exit -1"}},
      {{"config", "--load", "zram_opt", "--file", file.c_str()}, 0,
       "[zram_opt]\nvm_swappiness: 160\ndirect_swappiness: 60\n\n",
       {"config enter", "config exit 0"}},
      {{"config", "--load", "all", "--file", "/nonexistent"}, -1, "",
       {"config enter", "config exit -1"}},
      {{"config", "--list", "--load", "bogus"}, 0, std::nullopt, {"config enter"}},
  };
  for (const auto& c : cases) {
    std::vector<const char*> argv = c.args;
    argv.push_back(nullptr);
    kestrel_test::clear_log();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int status = cmd_config(static_cast<int>(c.args.size()), argv.data());
    std::string out = testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, c.status) << c.args[2];
    if (c.out) {
      EXPECT_EQ(out, *c.out) << c.args[2];
    }
    std::vector<std::string> log;
    for (const kestrel_test::LogLine& line : kestrel_test::logged()) {
      EXPECT_EQ(line.priority, ANDROID_LOG_INFO);
      EXPECT_EQ(line.tag, "kestrel-config");
      log.push_back(line.message);
    }
    EXPECT_EQ(log, c.log) << c.args[2];
  }
}

}  // namespace

namespace tarvo::kestrel::config {

void PrintTo(const Configure& cfg, std::ostream* os) {
  *os << "ram " << cfg.ram << "\n" << shown(cfg);
}

}  // namespace tarvo::kestrel::config
