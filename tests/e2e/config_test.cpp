// `kestrel config` as a user runs it: the sample configuration for this machine's RAM tier, the
// default file path inside the sandbox, usage and failure statuses, and the --list report.
#include <stdarg.h>
#include <stdio.h>
#include <sys/sysinfo.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

namespace {

using kestrel_e2e::Result;
using kestrel_e2e::RunOptions;

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  std::string text(static_cast<size_t>(vsnprintf(nullptr, 0, fmt, ap)), '\0');
  vsnprintf(text.data(), text.size() + 1, fmt, again);
  va_end(again);
  va_end(ap);
  return text;
}

const RunOptions kNoSimulator = {.simulator = false};

std::string sample_path() {
  return kestrel_e2e::fixtures_dir() + "/../../examples/tarvo_mm_config.xml";
}

// The tier this machine's RAM falls in: the reported total carried up to the next of 1, 2, 3, 4,
// 6, 8, 12, 16 and 24 GiB; -1 from 24 GiB on.
int machine_tier() {
  struct sysinfo info = {};
  if (sysinfo(&info) != 0) return 0;
  unsigned long long kib = (info.totalram >> 10) * info.mem_unit;
  for (int tier : {1, 2, 3, 4, 6, 8, 12, 16, 24}) {
    if (kib < static_cast<unsigned long long>(tier) << 20) return tier;
  }
  return -1;
}

// The values of examples/tarvo_mm_config.xml, one row per section.
struct SampleSection {
  int tier;
  int vm_swappiness, direct_swappiness;
  int disk_size_mb, increase_limit, limit_size, hybridswap_enable;
  const char* comp_algorithm;
  int chp_zram0_mb, chp_zram1_mb;
  const char *chp_zram0_algorithm, *chp_zram1_algorithm;
  int chp_limit_size;
};

constexpr SampleSection kSample[] = {
    {1, 100, 40, 768, 512, 512, 0, "lz4", 0, 0, "lz4", "zstd", 0},
    {2, 120, 50, 1280, 1024, 1024, 0, "lz4", 0, 0, "lz4", "zstd", 0},
    {3, 140, 60, 1536, 1024, 1536, 1, "lz4", 0, 0, "lz4", "zstd", 0},
    {4, 160, 60, 2560, 2048, 2048, 1, "lz4", 0, 0, "lz4", "zstd", 0},
    {6, 160, 60, 3072, 2048, 3072, 1, "lz4", 0, 0, "lz4", "zstd", 0},
    {8, 180, 70, 5632, 2048, 4096, 1, "lz4", 4096, 2048, "lz4", "zstd", 4096},
    {12, 180, 80, 5632, 3072, 6144, 1, "zstd", 7168, 3072, "lz4", "zstd", 7168},
    {16, 200, 90, 7680, 4096, 8192, 1, "zstd", 8704, 4096, "lz4", "zstd", 8704},
    {24, 200, 100, 7680, 4096, 8192, 1, "zstd", 8704, 6144, "lz4", "zstd", 8704},
    {-1, 200, 100, 8192, 4096, 8192, 1, "zstd", 8704, 8192, "lz4", "zstd", 8704},
};

struct GroupTexts {
  std::string zram_opt, zram0, chp_zram;
};

GroupTexts sample_groups(int tier) {
  for (const SampleSection& s : kSample) {
    if (s.tier != tier) continue;
    return {
        format("[zram_opt]\n"
                     "vm_swappiness: %d\n"
                     "direct_swappiness: %d\n"
                     "\n",
                     s.vm_swappiness, s.direct_swappiness),
        format("[zram0]\n"
                     "disk_size_mb: %d\n"
                     "comp_algorithm: %s\n"
                     "limit_size: %d\n"
                     "increase_limit: %d\n"
                     "hybridswap_enable: %d\n"
                     "\n",
                     s.disk_size_mb, s.comp_algorithm, s.limit_size, s.increase_limit,
                     s.hybridswap_enable),
        format("[chp_zram]\n"
                     "zram0_disk_size_mb: %d\n"
                     "zram0_comp_algorithm: %s\n"
                     "zram1_disk_size_mb: %d\n"
                     "zram1_comp_algorithm: %s\n"
                     "limit_size: %d\n"
                     "\n",
                     s.chp_zram0_mb, s.chp_zram0_algorithm, s.chp_zram1_mb, s.chp_zram1_algorithm,
                     s.chp_limit_size),
    };
  }
  ADD_FAILURE() << "no sample section for tier " << tier;
  return {};
}

const std::string kUsage =
    "usage: kestrel config [options] [--]\n"
    "    --list                print all memory options\n"
    "    --load                load [all|zram_opt|zram0|chp_zram] options\n"
    "    --file                configuration file path\n"
    "\n";

std::string file_error(const std::string& path) {
  return "error: failed to open/parse XML file " + path +
         " Error=XML_ERROR_FILE_NOT_FOUND ErrorID=3 (0x3) Line number=0: filename=" + path +
         "\n\n";
}

void expect_result(const Result& r, const std::string& out, const std::string& err, int status,
                   const std::string& what) {
  EXPECT_FALSE(r.timed_out) << what;
  EXPECT_EQ(r.out, out) << what;
  EXPECT_EQ(r.err, err) << what;
  EXPECT_EQ(r.status, status) << what;
}

TEST(ConfigE2E, LoadPrintsTheSampleSectionOfThisMachinesTier) {
  GroupTexts g = sample_groups(machine_tier());
  const struct {
    const char* group;
    std::string out;
  } cases[] = {
      {"all", g.zram_opt + g.zram0 + g.chp_zram},
      {"zram_opt", g.zram_opt},
      {"zram0", g.zram0},
      {"chp_zram", g.chp_zram},
  };
  for (const auto& c : cases) {
    Result r = kestrel_e2e::run_kestrel({"config", "--load", c.group, "--file", sample_path()},
                                        kNoSimulator);
    expect_result(r, c.out, "", 0, c.group);
  }
}

TEST(ConfigE2E, MisuseAndFailuresEndWithTheirStatus) {
  // A section for this machine whose zram0 group is valid and whose chp group is not.
  kestrel_e2e::TempDir dir;
  std::string bad_chp = dir.write(
      "bad_chp.xml",
      format("<config><memory_%dg><zram0><disk_size_mb>100</disk_size_mb></zram0>"
             "<chp_zram><limit_size>none</limit_size></chp_zram></memory_%dg></config>\n",
             machine_tier(), machine_tier()));
  const struct {
    std::vector<std::string> args;
    std::string out, err;
    int status;
  } cases[] = {
      {{"config"}, "", kUsage, 129},
      {{"config", "--file", sample_path()}, "", kUsage, 129},
      {{"config", "--load", "ALL"}, "invalid load option: ALL\n", "", 255},
      {{"config", "--load", "bogus", "--file", "/nonexistent"}, "invalid load option: bogus\n", "",
       255},
      {{"config", "--load", "all", "--file", "/nonexistent"}, "", file_error("/nonexistent"), 255},
      {{"config", "--load", "zram0", "--file", bad_chp}, "",
       "error: invalid limit_size value\n\n", 255},
  };
  for (const auto& c : cases) {
    Result r = kestrel_e2e::run_kestrel(c.args, kNoSimulator);
    std::string what;
    for (const std::string& arg : c.args) what += arg + " ";
    expect_result(r, c.out, c.err, c.status, what);
  }
}

TEST(ConfigE2E, DefaultFileIsTheVendorConfiguration) {
  KESTREL_REQUIRE_SANDBOX();
  std::ifstream file(sample_path());
  ASSERT_TRUE(file) << sample_path();
  std::stringstream sample;
  sample << file.rdbuf();
  GroupTexts g = sample_groups(machine_tier());

  kestrel_e2e::Sandbox sandbox;
  Result missing = sandbox.run({"config", "--load", "all"}, kNoSimulator);
  expect_result(missing, "", file_error("/odm/etc/tarvo_mm_config.xml"), 255, "no file");

  sandbox.write_file("/odm/etc/tarvo_mm_config.xml", sample.str());
  Result r = sandbox.run({"config", "--load", "zram0"}, kNoSimulator);
  expect_result(r, g.zram0, "", 0, "sample");
}

// The report of a machine that has none of the device's files: every value "N/A" but the RAM
// tier and the allocator's answers, masked as "#" by machine_values_masked.
std::string bare_report(int tier) {
  return format(
      "[sys]\n"
      "  soc: UNKNOWN\n"
      "  kernel: 6.1.75\n"
      "  ram: %dG\n"
      "  chp_enabled: 0\n"
      "\n"
      "  sys.sysctl.extra_free_kbytes: N/A\n"
      "  persist.sys.tarvo.hybridswap_app_memcg: N/A\n"
      "  persist.sys.tarvo.hybridswap_app_uid_memcg: N/A\n"
      "\n"
      "[kernel]\n"
      "  watermark_scale_factor: N/A\n"
      "  watermark_boost_factor: N/A\n"
      "\n"
      "  transparent_hugepage: N/A\n"
      "  lru_gen: N/A\n"
      "  chp: N/A\n"
      "\n"
      "[zram0]\n"
      "  disksize: N/A\n"
      "  comp_algorithm: N/A\n"
      "\n"
      "  hybridswap_zram_increase: N/A\n"
      "  hybridswap_enable: N/A\n"
      "\n"
      "  persist.sys.tarvo.nandswap: N/A\n"
      "  persist.sys.tarvo.nandswap.cfg: N/A\n"
      "  persist.sys.tarvo.nandswap.condition: N/A\n"
      "  persist.sys.tarvo.nandswap.err: N/A\n"
      "  persist.sys.tarvo.nandswap.lvl: N/A\n"
      "  persist.sys.tarvo.nandswap.storage.min: N/A\n"
      "  persist.sys.tarvo.nandswap.swapsize: N/A\n"
      "  persist.sys.tarvo.nandswap.swapsize.curr: N/A\n"
      "\n"
      "[boost_pool]\n"
      "  camera_pages: N/A\n"
      "\n"
      "[zram_opt]\n"
      "  swappiness_para: N/A\n"
      "  dynamic_swappiness: N/A\n"
      "\n"
      "[ux_page_pool]\n"
      "  ux_page_pool: N/A\n"
      "\n"
      "[allocator]\n"
      "  M_DECAY_TIME(-1): #\n"
      "  M_DECAY_TIME(0): #\n"
      "  M_PURGE(0): #\n"
      "  M_PURGE_ALL(0): #\n"
      "  M_LOG_STATS(0): #\n"
      "  M_JE_ALLOCATOR_PAGE_SIZE(0): #\n"
      "  M_JE_NR_ARENAS(0): #\n"
      "  M_JE_TCACHE_ENALE(0): #\n"
      "\n"
      "  heap_zero_init: #\n"
      "  read_offset: \n",
      tier);
}

// The allocator's answers and the heap probe depend on the C library and on sanitizers; with
// `every_value` all values go, leaving the report's shape.
std::string machine_values_masked(const std::string& report, bool every_value) {
  std::istringstream in(report);
  std::string masked;
  for (std::string line; std::getline(in, line);) {
    size_t colon = line.find(": ");
    bool machine = line.starts_with("  M_") || line.starts_with("  heap_zero_init: ");
    if (line.starts_with("  ") && colon != std::string::npos && (every_value || machine)) {
      line = line.substr(0, colon + 2) + "#";
    }
    masked += line + "\n";
  }
  return masked;
}

// The device libc is missing in both runs, so readelf's complaint (its own wording) goes to
// standard error, which is therefore not compared.
TEST(ConfigE2E, ListIgnoresLoadAndShowsNAForMissingFiles) {
  KESTREL_REQUIRE_SANDBOX();
  int tier = machine_tier();
  kestrel_e2e::Sandbox sandbox;
  sandbox.write_file("/proc/version", "Linux version 6.1.75-android14 (build@host) #1 SMP\n");
  Result r = sandbox.run({"config", "--list", "--load", "bogus"}, kNoSimulator);
  if (tier == -1) {
    expect_result(r, "[sys]\n", "fatal: unsupport ram\n\n", 129, "24 GiB and more");
    return;
  }
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(machine_values_masked(r.out, false), bare_report(tier));
}

// A Linux host has neither chp nor a SoC model, so its report has the bare report's lines.
TEST(ConfigE2E, ListRunsOnThisHost) {
  Result r = kestrel_e2e::run_kestrel({"config", "--list"}, kNoSimulator);
  if (machine_tier() == -1) {
    expect_result(r, "[sys]\n", "fatal: unsupport ram\n\n", 129, "24 GiB and more");
    return;
  }
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(machine_values_masked(r.out, true),
            machine_values_masked(bare_report(machine_tier()), true));
}

}  // namespace
