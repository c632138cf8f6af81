// SPDX-License-Identifier: Apache-2.0
// cmd_utils.cpp: small tools gathered in one command: the driver's scene switch, and the check
// that ELF files are built for 16 KiB pages, either one file shown header by header or every ELF
// file on the device's partitions listed when it falls short.
#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

#include <android-base/properties.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include "cmds/cmds.h"
#include "cmds/utils.h"
#include "libelf64/elf64.h"
#include "libs/kestrel/util.h"
#include "parse-options/parse-options.h"

namespace {

namespace fs = std::filesystem;
using android::elf64::Elf64Binary;
using android::elf64::Elf64Parser;
using tarvo::kestrel::utils::kMinLoadAlign;

const char* const utils_usage[] = {"kestrel utils [options]", nullptr};

constexpr const char* kHappy = "(^_^)";
constexpr const char* kSad = "@(>.<)@";

// Android 15 (vendor api level 35) is the first release that needs 16 KiB pages.
constexpr int kFirst16kApiLevel = 35;

int set_or_clear_scene(const char* arg, bool set) {
  char* end = nullptr;
  long scene = strtol(arg, &end, 10);
  if (*end != '\0') die("native expects a numerical value");
  // The flag is printed, not the scene number, and a clear also says "Set:".
  int flag = set ? 1 : 0;
  if (!tarvo::kestrel::util::KestrelSetOrClearScene(static_cast<unsigned long long>(scene), set)) {
    return error("Failed to set: %d scene %s", flag, kSad);
  }
  printf("Set: %d scene %s\n", flag, kHappy);
  return 0;
}

int check_elf_file(const char* path) {
  Elf64Binary binary;
  // Names but no contents: the answer needs the headers only, and a section can be gigabytes.
  if (!Elf64Parser::ParseElfNames(path, binary)) {
    die("%s is not a valid elf file or file does not exit.", path);
  }
  bool failed = false;
  for (size_t i = 0; i < binary.phdrs.size(); i++) {
    const Elf64_Phdr& ph = binary.phdrs[i];
    if (ph.p_type != PT_LOAD) continue;
    printf("Program Header %zu:\n", i);
    printf("  Type:   0x%08x\n", ph.p_type);
    printf("  Offset: 0x%016llx\n", static_cast<unsigned long long>(ph.p_offset));
    printf("  VAddr:  0x%016llx\n", static_cast<unsigned long long>(ph.p_vaddr));
    printf("  PAddr:  0x%016llx\n", static_cast<unsigned long long>(ph.p_paddr));
    printf("  FileSz: 0x%016llx\n", static_cast<unsigned long long>(ph.p_filesz));
    printf("  MemSz:  0x%016llx\n", static_cast<unsigned long long>(ph.p_memsz));
    printf("  Flags:  0x%08x\n", ph.p_flags);
    printf("  Align:  %llu\n", static_cast<unsigned long long>(ph.p_align));
    if (ph.p_align < kMinLoadAlign) failed = true;
  }
  // The verdicts go to different streams, the pass through error(): scripts rely on it.
  if (failed) {
    printf("\nVerify align failed! %s\n", kSad);
    return -1;
  }
  error("\nVerify align pass! %s\n", kHappy);
  return 0;
}

int check_device() {
  int api_level = android::base::GetIntProperty("ro.vendor.api_level", 31);
  if (api_level >= kFirst16kApiLevel) {
    if (android::base::GetBoolProperty("ro.config.low_ram", false)) {
      printf("Low Ram devices only support 4kB page size\n");
    }
  } else {
    printf("16kB support is only required on V and later releases.\n");
  }
  for (const std::string& root : tarvo::kestrel::utils::elf_align_roots()) {
    tarvo::kestrel::utils::elf_align_scan(root, stdout);
  }
  return 0;
}

// Files here are never reported: the VNDK snapshots of older releases and modem firmware are
// built by others for their own page size.
constexpr std::string_view kIgnoredPrefixes[] = {"/apex/com.android.vndk.v",
                                                  "/vendor/firmware_mnt/image"};

bool ignored_path(const std::string& path) {
  for (std::string_view prefix : kIgnoredPrefixes) {
    if (path.starts_with(prefix)) return true;
  }
  return false;
}

// The iterator gives up the whole walk when it cannot open a directory, so each directory is
// tried before the walk descends into it and left out, with a message, when it cannot be read.
bool can_descend(const fs::path& dir) {
  android::base::unique_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd == -1) {
    error("cannot read directory %s: %s", dir.c_str(), strerror(errno));
    return false;
  }
  return true;
}

}  // namespace

namespace tarvo::kestrel::utils {

std::set<std::string> elf_align_roots(const char* mounts) {
  // Pseudo file systems, user data and mount points of other devices hold no partition image.
  static const std::set<std::string> kExcluded = {"/",    "/config",      "/data",
                                                  "/data_mirror", "/dev",  "/linkerconfig",
                                                  "/mnt", "/proc",        "/storage",
                                                  "/sys"};
  std::set<std::string> roots;
  std::unique_ptr<FILE, decltype(&endmntent)> table(setmntent(mounts, "re"), endmntent);
  if (!table) return roots;
  while (const mntent* entry = getmntent(table.get())) {
    std::vector<std::string> parts = android::base::Split(entry->mnt_dir, "/");
    if (parts.size() < 2) continue;
    std::string top = "/" + parts[1];
    if (!kExcluded.contains(top)) roots.insert(std::move(top));
  }
  return roots;
}

void elf_align_scan(const std::string& root, FILE* out) {
  std::error_code walk_ec;
  fs::recursive_directory_iterator it(root, walk_ec);
  if (walk_ec) {
    error("cannot read directory %s: %s", root.c_str(), walk_ec.message().c_str());
    return;
  }
  for (; it != fs::recursive_directory_iterator(); it.increment(walk_ec)) {
    const fs::directory_entry& entry = *it;
    std::error_code ec;
    if (entry.is_symlink(ec)) continue;
    if (!entry.is_regular_file(ec)) {
      if (entry.is_directory(ec) && !can_descend(entry.path())) it.disable_recursion_pending();
      continue;
    }
    const std::string& path = entry.path().native();
    Elf64Binary binary;
    if (!Elf64Parser::ParseElfHeaders(path, binary)) continue;
    if (ignored_path(path)) continue;
    for (const Elf64_Phdr& ph : binary.phdrs) {
      if (ph.p_type == PT_LOAD && ph.p_align < kMinLoadAlign) {
        fprintf(out, "%s %lu\n", path.c_str(), static_cast<unsigned long>(ph.p_align));
        break;
      }
    }
  }
  // Only a directory that failed between our check and the iterator's own open (or a failed
  // read of one) gets here; the rest of this root is lost, the other roots are still walked.
  if (walk_ec) error("stopped walking %s: %s", root.c_str(), walk_ec.message().c_str());
}

}  // namespace tarvo::kestrel::utils

int cmd_utils(int argc, const char** argv) {
  int elf_align = 0, set_scene = 0, clear_scene = 0;
  const option options[] = {
      {.type = OPTION_COUNTUP, .long_name = "elf-align", .value = &elf_align, .help = ""},
      {.type = OPTION_COUNTUP, .long_name = "set-scene", .value = &set_scene, .help = ""},
      {.type = OPTION_COUNTUP, .long_name = "clear-scene", .value = &clear_scene, .help = ""},
      {.type = OPTION_END},
  };
  argc = parse_options(argc, argv, options, utils_usage);

  // Only the first switch given, in this order, is acted on. The file to check is the last
  // argument, so that a scene number left by an ignored --set-scene is not taken for it.
  if (elf_align) return argc > 0 ? check_elf_file(argv[argc - 1]) : check_device();
  if (set_scene || clear_scene) {
    if (argc < 1) usage_with_options(utils_usage, options);
    return set_or_clear_scene(argv[0], set_scene != 0);
  }
  usage_with_options(utils_usage, options);
}
