// SPDX-License-Identifier: Apache-2.0
// The memory configuration: defaults per RAM tier, the vendor XML file read into a Configure, its
// printout, and the system-state report of `kestrel config --list`. Nothing here writes to the
// system; tunables are read and shown, never applied.
#include "libs/kestrel/config.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <span>
#include <vector>

#include <android-base/file.h>
#include <android-base/properties.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>
#include <tinyxml2.h>

#include "platform/log.h"
#include "platform/mallopt.h"

namespace tarvo::kestrel::config {

namespace {

using android::base::StringPrintf;
using tinyxml2::XMLElement;

constexpr uint32_t kGiBInKiB = 1024 * 1024;

// Each tier holds the devices reporting less than that many GiB.
constexpr int kTiers[] = {1, 2, 3, 4, 6, 8, 12, 16, 24};

int32_t default_disk_size_mb(int tier) {
  switch (tier) {
    case 1: return 768;
    case 2: return 1280;
    case 3: return 1536;
    case 4: return 2560;
    case 6: return 3072;
    case 8: return 5632;
    case 12: return 5632;  // the same zram0 size as the 8 GiB tier, on purpose
    default: return 7680;
  }
}

// One value for both chp zram sizes and the chp limit.
int32_t default_chp_size_mb(int tier) {
  switch (tier) {
    case 1: case 2: case 3: case 4: case 6: case 8: return 0;
    case 12: return 7168;
    default: return 8704;
  }
}

// An absent key keeps the default; a present one must hold an integer.
bool read_key(const XMLElement* group, const char* name, int32_t* field, std::string* err) {
  const XMLElement* key = group->FirstChildElement(name);
  if (key == nullptr) return true;
  if (key->QueryIntText(field) != tinyxml2::XML_SUCCESS) {
    *err = StringPrintf("invalid %s value\n", name);
    return false;
  }
  return true;
}

// An absent key keeps the default; a present one must have text.
bool read_key(const XMLElement* group, const char* name, std::string* field, std::string* err) {
  const XMLElement* key = group->FirstChildElement(name);
  if (key == nullptr) return true;
  const char* text = key->GetText();
  if (text == nullptr) {
    *err = StringPrintf("invalid %s value\n", name);
    return false;
  }
  *field = text;
  return true;
}

bool parse_zram_opt(const XMLElement* section, Configure* cfg, std::string* err) {
  const XMLElement* group = section->FirstChildElement("zram_opt");
  if (group == nullptr) return true;
  return read_key(group, "vm_swappiness", &cfg->vm_swappiness, err) &&
         read_key(group, "direct_swappiness", &cfg->direct_swappiness, err);
}

bool parse_zram0(const XMLElement* section, Configure* cfg, std::string* err) {
  const XMLElement* group = section->FirstChildElement("zram0");
  if (group == nullptr) return true;
  if (!read_key(group, "disk_size_mb", &cfg->disk_size_mb, err) ||
      !read_key(group, "increase_limit", &cfg->increase_limit, err) ||
      !read_key(group, "hybridswap_enable", &cfg->hybridswap_enable, err)) {
    return false;
  }
  cfg->hybridswap_enable = cfg->hybridswap_enable != 0 ? 1 : 0;
  return read_key(group, "limit_size", &cfg->limit_size, err) &&
         read_key(group, "comp_algorithm", &cfg->comp_algorithm, err);
}

// --- the system-state report ------------------------------------------------------------------

// Properties of the report: the first three follow the [sys] figures, the rest stand on their
// own after the zram groups.
constexpr const char* kProperties[] = {
    "sys.sysctl.extra_free_kbytes",
    "persist.sys.tarvo.hybridswap_app_memcg",
    "persist.sys.tarvo.hybridswap_app_uid_memcg",
    "persist.sys.tarvo.nandswap",
    "persist.sys.tarvo.nandswap.cfg",
    "persist.sys.tarvo.nandswap.condition",
    "persist.sys.tarvo.nandswap.err",
    "persist.sys.tarvo.nandswap.lvl",
    "persist.sys.tarvo.nandswap.storage.min",
    "persist.sys.tarvo.nandswap.swapsize",
    "persist.sys.tarvo.nandswap.swapsize.curr",
};
constexpr size_t kSysProperties = 3;

struct AllocatorCall {
  const char* label;
  int param;
  int value;
};

// Real calls, in this order: the decay time goes to -1 and then to 0 before the heap is purged.
constexpr AllocatorCall kAllocatorCalls[] = {
    {"M_DECAY_TIME(-1)", platform::kDecayTime, -1},
    {"M_DECAY_TIME(0)", platform::kDecayTime, 0},
    {"M_PURGE(0)", platform::kPurge, 0},
    {"M_PURGE_ALL(0)", platform::kPurgeAll, 0},
    {"M_LOG_STATS(0)", platform::kLogStats, 0},
    // The vendor allocator's own parameters have no public name. Readers of the report match
    // the labels as they stand, misspelt "ENALE" included.
    {"M_JE_ALLOCATOR_PAGE_SIZE(0)", -7853, 0},
    {"M_JE_NR_ARENAS(0)", -7854, 0},
    {"M_JE_TCACHE_ENALE(0)", -7855, 0},
};

struct KernelVersion {
  int major = 0;
  int minor = 0;
  int patch = 0;
};

// The figures of "Linux version a.b.c ..."; those that do not scan stay 0.
KernelVersion kernel_version(const std::string& path) {
  KernelVersion v;
  char buf[256] = {};
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd < 0) return v;
  ssize_t n = read(fd.get(), buf, sizeof(buf) - 1);
  if (n >= 1) buf[n - 1] = '\0';
  sscanf(buf, "Linux version %d.%d.%d", &v.major, &v.minor, &v.patch);
  return v;
}

void print_properties(FILE* out, std::span<const char* const> names) {
  for (const char* name : names) {
    fprintf(out, "  %s: %s\n", name, android::base::GetProperty(name, "N/A").c_str());
  }
}

// Each file `format` makes of `base` and a name, labelled by that name; read_file supplies the
// line's newline.
void print_file_values(FILE* out, const char* format, const std::string& base,
                       std::initializer_list<const char*> names) {
  for (const char* name : names) {
    std::string path = StringPrintf(format, base.c_str(), name);
    fprintf(out, "  %s: %s", name, read_file(path).c_str());
  }
}

// Keeps the compiler from treating the bytes behind p as dead or as known: the probe is about
// what the allocator leaves in them.
inline void touch_heap(void* p) { asm volatile("" : : "r"(p) : "memory"); }

// 1 when the allocator hands out zeroed memory: blocks of 1 to 32 bytes are filled with 'X' and
// freed, then the same sizes are allocated again and must all read as zero.
int heap_zero_init() {
  constexpr int kBlocks = 4096;
  static constexpr unsigned char kZeros[32] = {};
  std::vector<void*> blocks;
  for (int i = 0; i < kBlocks; i++) {
    size_t size = static_cast<size_t>(i % 32) + 1;
    void* p = malloc(size);
    if (p == nullptr) continue;
    memset(p, 'X', size);
    touch_heap(p);
    blocks.push_back(p);
  }
  for (void* p : blocks) free(p);
  blocks.clear();

  int zeroed = 1;
  for (int i = 0; i < kBlocks; i++) {
    size_t size = static_cast<size_t>(i % 32) + 1;
    void* p = malloc(size);
    if (p == nullptr) {
      zeroed = 0;
      break;
    }
    blocks.push_back(p);
    touch_heap(p);
    if (memcmp(p, kZeros, size) != 0) {
      zeroed = 0;
      break;
    }
  }
  for (void* p : blocks) free(p);
  return zeroed;
}

struct PipeCloser {
  void operator()(FILE* pipe) const { pclose(pipe); }
};

// The value of `read` in the symbol table of the system libc, as the shell pipeline prints it
// (newline included; nothing at all when readelf is missing), or "NA".
std::string read_offset(const std::string& libc) {
  std::string command = "readelf -s " + libc +
                        " | grep ' read$' | head -1 | awk '{printf \"%s\\n\", $2}'";
  std::unique_ptr<FILE, PipeCloser> pipe(popen(command.c_str(), "r"));
  if (pipe == nullptr) return "NA";
  std::string output;
  if (!android::base::ReadFdToString(fileno(pipe.get()), &output)) return "NA";
  return output;
}

}  // namespace

Configure Configure::Defaults(int tier) {
  Configure cfg;
  cfg.ram = tier;
  cfg.vm_swappiness = 160;
  cfg.direct_swappiness = 60;
  cfg.disk_size_mb = default_disk_size_mb(tier);
  cfg.increase_limit = 2048;
  cfg.limit_size = 0;
  cfg.hybridswap_enable = 1;
  cfg.comp_algorithm = "lz4";
  int32_t chp_size = default_chp_size_mb(tier);
  cfg.chp_zram.zram0_disk_size_mb = chp_size;
  cfg.chp_zram.zram1_disk_size_mb = chp_size;
  cfg.chp_zram.limit_size = chp_size;
  cfg.chp_zram.zram0_comp_algorithm = "lz4";
  cfg.chp_zram.zram1_comp_algorithm = "zstdn";  // spelt as devices have always shipped it
  return cfg;
}

uint32_t total_ram_kib() {
  struct sysinfo info = {};
  if (sysinfo(&info) != 0) {
    KLOGE("sysinfo failed: %s", strerror(errno));
    return 0;
  }
  return static_cast<uint32_t>((info.totalram >> 10) * info.mem_unit);
}

int ram_tier(uint32_t total_kib) {
  for (int tier : kTiers) {
    if (total_kib < static_cast<uint32_t>(tier) * kGiBInKiB) return tier;
  }
  return kTierBeyondTable;
}

int parse_chp_zram_xml(XMLElement* section, Configure::ChpZram* chp, std::string* err) {
  const XMLElement* group = section->FirstChildElement("chp_zram");
  if (group == nullptr) return 0;
  bool ok = read_key(group, "zram0_disk_size_mb", &chp->zram0_disk_size_mb, err) &&
            read_key(group, "zram1_disk_size_mb", &chp->zram1_disk_size_mb, err) &&
            read_key(group, "zram0_comp_algorithm", &chp->zram0_comp_algorithm, err) &&
            read_key(group, "zram1_comp_algorithm", &chp->zram1_comp_algorithm, err) &&
            read_key(group, "limit_size", &chp->limit_size, err);
  return ok ? 0 : -1;
}

// A real configuration is a few KiB; the parser holds several times a file's size in memory.
constexpr off_t kMaxConfigBytes = 4 << 20;

int load_config(const std::string& path, int tier, Configure* cfg, std::string* err) {
  *cfg = Configure::Defaults(tier);
  tinyxml2::XMLDocument doc(true, tinyxml2::PRESERVE_WHITESPACE);
  // Opened here and not by the parser: O_NONBLOCK keeps a FIFO from hanging the open, and what
  // is not a regular file of a sensible size is refused before a byte is read. A file that
  // cannot be opened is left to the parser, whose message says why.
  android::base::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  std::unique_ptr<FILE, int (*)(FILE*)> file(nullptr, fclose);
  if (fd != -1) {
    struct stat st;
    const char* refused = fstat(fd.get(), &st) != 0 ? strerror(errno)
                          : !S_ISREG(st.st_mode)    ? "not a regular file"
                          : st.st_size > kMaxConfigBytes ? "larger than 4 MiB"
                                                         : nullptr;
    if (refused != nullptr) {
      *err = StringPrintf("failed to open/parse XML file %s %s\n", path.c_str(), refused);
      return -1;
    }
    file.reset(fdopen(fd.get(), "r"));
    if (file) [[maybe_unused]] int now_owned_by_file = fd.release();
  }
  const tinyxml2::XMLError loaded = file ? doc.LoadFile(file.get()) : doc.LoadFile(path.c_str());
  if (loaded != tinyxml2::XML_SUCCESS) {
    *err = StringPrintf("failed to open/parse XML file %s %s\n", path.c_str(), doc.ErrorStr());
    return -1;
  }
  XMLElement* root = doc.FirstChildElement("config");
  if (root == nullptr) {
    *err = "no <config> element found\n";
    return -1;
  }
  std::string name = StringPrintf("memory_%dg", tier);
  XMLElement* section = root->FirstChildElement(name.c_str());
  if (section == nullptr) {
    *err = StringPrintf("no <%s> element found\n", name.c_str());
    return -1;
  }
  if (!parse_zram_opt(section, cfg, err) || !parse_zram0(section, cfg, err)) return -1;
  return parse_chp_zram_xml(section, &cfg->chp_zram, err);
}

// zram0 prints limit_size before increase_limit and the chp group pairs each size with its
// algorithm: both orders differ from the file's and are what readers of this output expect.
void show_config(const Configure& cfg, bool zram_opt, bool zram0, bool chp_zram, FILE* out) {
  if (zram_opt) {
    fputs("[zram_opt]\n", out);
    fprintf(out, "vm_swappiness: %d\n", cfg.vm_swappiness);
    fprintf(out, "direct_swappiness: %d\n", cfg.direct_swappiness);
    fputc('\n', out);
  }
  if (zram0) {
    fputs("[zram0]\n", out);
    fprintf(out, "disk_size_mb: %d\n", cfg.disk_size_mb);
    fprintf(out, "comp_algorithm: %s\n", cfg.comp_algorithm.c_str());
    fprintf(out, "limit_size: %d\n", cfg.limit_size);
    fprintf(out, "increase_limit: %d\n", cfg.increase_limit);
    fprintf(out, "hybridswap_enable: %d\n", cfg.hybridswap_enable);
    fputc('\n', out);
  }
  if (chp_zram) {
    const Configure::ChpZram& chp = cfg.chp_zram;
    fputs("[chp_zram]\n", out);
    fprintf(out, "zram0_disk_size_mb: %d\n", chp.zram0_disk_size_mb);
    fprintf(out, "zram0_comp_algorithm: %s\n", chp.zram0_comp_algorithm.c_str());
    fprintf(out, "zram1_disk_size_mb: %d\n", chp.zram1_disk_size_mb);
    fprintf(out, "zram1_comp_algorithm: %s\n", chp.zram1_comp_algorithm.c_str());
    fprintf(out, "limit_size: %d\n", chp.limit_size);
    fputc('\n', out);
  }
}

std::string read_file(const std::string& path) {
  std::string content;
  if (!android::base::ReadFileToString(path, &content)) return "N/A\n";
  content.resize(strlen(content.c_str()));
  if (content.empty()) return "\n";
  std::replace(content.begin(), content.end() - 1, '\n', ' ');
  if (content.back() != '\n') content.push_back('\n');
  return content;
}

// Paths are joined with "%s/%s" onto folders that already end in '/', so most of them carry a
// doubled slash; the kernel takes them as they are.
bool show_system_report(uint32_t total_kib, const ReportPaths& paths, FILE* out) {
  fputs("[sys]\n", out);
  int tier = ram_tier(total_kib);
  if (tier == kTierBeyondTable) return false;
  bool chp = access(paths.chp_enabled.c_str(), F_OK) == 0;
  KernelVersion kernel = kernel_version(paths.proc_version);
  std::string soc = android::base::GetProperty("ro.soc.model", "UNKNOWN");
  fprintf(out, "  soc: %s\n", soc.c_str());
  fprintf(out, "  kernel: %d.%d.%d\n", kernel.major, kernel.minor, kernel.patch);
  fprintf(out, "  ram: %dG\n", tier);
  fprintf(out, "  chp_enabled: %d\n", chp ? 1 : 0);
  fputc('\n', out);
  std::span<const char* const> properties(kProperties);
  print_properties(out, properties.first(kSysProperties));
  fputc('\n', out);

  fputs("[kernel]\n", out);
  print_file_values(out, "%s/%s", paths.vm_dir,
                    {"watermark_scale_factor", "watermark_boost_factor"});
  fputc('\n', out);
  print_file_values(out, "%s/%s/enabled", paths.mm_dir,
                    {"transparent_hugepage", "lru_gen", "chp"});
  fputc('\n', out);

  fputs("[zram0]\n", out);
  print_file_values(out, "%s0/%s", paths.zram_prefix, {"disksize", "comp_algorithm"});
  fputc('\n', out);
  print_file_values(out, "%s0/%s", paths.zram_prefix,
                    {"hybridswap_zram_increase", "hybridswap_enable"});
  fputc('\n', out);
  if (chp) {
    fputs("[zram1]\n", out);
    print_file_values(out, "%s1/%s", paths.zram_prefix, {"disksize", "comp_algorithm"});
    fputc('\n', out);
  }
  print_properties(out, properties.subspan(kSysProperties));
  fputc('\n', out);

  // A one-letter model names no platform; the next header then follows on the same line, which
  // is how this report has always looked.
  fputs("[boost_pool]\n", out);
  if (soc.size() > 1) {
    if (soc.starts_with("MT")) {
      print_file_values(out, "%s/%s", paths.boost_pool_dir, {"mtk_mm-uncached/min", "mtk_mm/min"});
    } else {
      print_file_values(out, "%s/%s", paths.boost_pool_dir, {"camera_pages"});
    }
    fputc('\n', out);
  } else {
    fputs("unknown platform", out);
  }

  fputs("[zram_opt]\n", out);
  print_file_values(out, "%s/%s", paths.tarvo_mem_dir, {"swappiness_para", "dynamic_swappiness"});
  fputc('\n', out);
  fputs("[ux_page_pool]\n", out);
  print_file_values(out, "%s/%s", paths.tarvo_mem_dir, {"ux_page_pool"});
  fputc('\n', out);

  fputs("[allocator]\n", out);
  for (const AllocatorCall& call : kAllocatorCalls) {
    fprintf(out, "  %s: %d\n", call.label, platform::allocator_option(call.param, call.value));
  }
  fprintf(out, "\n  heap_zero_init: %d\n", heap_zero_init());
  fprintf(out, "  read_offset: %s\n", read_offset(paths.libc).c_str());
  return true;
}

}  // namespace tarvo::kestrel::config
