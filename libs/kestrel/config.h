// SPDX-License-Identifier: Apache-2.0
// The memory configuration of one RAM tier (zram sizes and compression, swappiness, hybrid swap):
// its built-in defaults, the tier of this device, loading it from the vendor XML file, printing
// it, and the report of the system's present memory state behind `kestrel config --list`.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>

namespace tinyxml2 {
class XMLElement;
}

namespace tarvo::kestrel::config {

inline constexpr const char* kDefaultConfigPath = "/odm/etc/tarvo_mm_config.xml";

// The tier given for 24 GiB of RAM and more; its section is "memory_-1g".
inline constexpr int kTierBeyondTable = -1;

// The settings of one tier. All sizes are whole MiB as written in the file.
struct Configure {
  struct ChpZram {
    int32_t zram0_disk_size_mb = 0;
    int32_t zram1_disk_size_mb = 0;
    int32_t limit_size = 0;
    std::string zram0_comp_algorithm;
    std::string zram1_comp_algorithm;

    bool operator==(const ChpZram&) const = default;
  };

  int32_t disk_size_mb = 0;
  int32_t increase_limit = 0;
  int32_t limit_size = 0;
  int32_t hybridswap_enable = 0;  // 0 or 1 once loaded
  std::string comp_algorithm;
  ChpZram chp_zram;
  int32_t vm_swappiness = 0;
  int32_t direct_swappiness = 0;
  int32_t ram = 0;  // the tier in GiB that chose the section

  // The built-in settings of `tier`, which the file then overrides key by key.
  static Configure Defaults(int tier);

  bool operator==(const Configure&) const = default;
};

// Total RAM in KiB as sysinfo reports it (totalram >> 10, times mem_unit), or 0 (logged) when
// sysinfo fails.
uint32_t total_ram_kib();

// The tier in GiB of a device with `total_kib` of RAM: the reported total, always a little
// below the nominal size, is carried up to it. 24 GiB and more gives kTierBeyondTable.
int ram_tier(uint32_t total_kib);

// Fills `cfg` with the defaults of `tier` and then with the section "memory_<tier>g" of the file
// at `path`. Returns 0, or -1 with the reason in *err, one line ending in a newline.
int load_config(const std::string& path, int tier, Configure* cfg, std::string* err);

// Fills `chp` from the chp_zram child of `section`, if there is one. Returns 0, or -1 with the
// reason in *err.
int parse_chp_zram_xml(tinyxml2::XMLElement* section, Configure::ChpZram* chp, std::string* err);

// Prints the chosen groups of `cfg`, always in the order zram_opt, zram0, chp_zram.
void show_config(const Configure& cfg, bool zram_opt, bool zram0, bool chp_zram,
                 FILE* out = stdout);

// A small procfs or sysfs file as one printable line ending in exactly one newline: inner
// newlines become blanks, anything after an embedded NUL is dropped, an empty file is "\n" and
// an unreadable one "N/A\n".
std::string read_file(const std::string& path);

// Where the system-state report finds its kernel files.
struct ReportPaths {
  std::string proc_version = "/proc/version";
  std::string chp_enabled = "/sys/kernel/mm/chp/enabled";
  std::string vm_dir = "/proc/sys/vm/";
  std::string mm_dir = "/sys/kernel/mm/";
  std::string zram_prefix = "/sys/block/zram";  // zram0 and zram1 follow with their number
  std::string boost_pool_dir = "/proc/boost_pool/";
  std::string tarvo_mem_dir = "/proc/tarvo_mem/";
  std::string libc = "/apex/com.android.runtime/lib64/bionic/libc.so";

  static ReportPaths Device() { return {}; }
};

// Prints the system-state report for a device with `total_kib` of RAM. At 24 GiB and more, for
// which the report has no tier, only its first header is printed and the result is false.
bool show_system_report(uint32_t total_kib, const ReportPaths& paths = ReportPaths::Device(),
                        FILE* out = stdout);

}  // namespace tarvo::kestrel::config
