// SPDX-License-Identifier: Apache-2.0
// cmd_utils.cpp: small tools gathered in one command: the driver's scene switch, and the check
// that ELF files are built for 16 KiB pages, either one file shown header by header or every ELF
// file on the device's partitions listed when it falls short.
#include <stdio.h>

#include <string>

#include <android-base/properties.h>

#include "cmds/cmds.h"
#include "libelf64/align.h"
#include "libelf64/elf64.h"
#include "libs/kestrel/kit.h"
#include "libs/kestrel/device.h"
#include "parse-options/parse-options.h"

namespace {

using android::elf64::Elf64Binary;
using android::elf64::Elf64Parser;
using tarvo::kestrel::elf_align::kMinLoadAlign;

const char* const utils_usage[] = {"kestrel utils [options]", nullptr};

constexpr const char* kHappy = "(^_^)";
constexpr const char* kSad = "@(>.<)@";

// Android 15 (vendor api level 35) is the first release that needs 16 KiB pages.
constexpr int kFirst16kApiLevel = 35;

int set_or_clear_scene(const char* arg, bool set) {
  long scene = 0;
  if (!tarvo::kestrel::kit::parse_number(arg, &scene)) die("native expects a numerical value");
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
  for (const std::string& root : tarvo::kestrel::elf_align::elf_align_roots()) {
    tarvo::kestrel::elf_align::elf_align_scan(
        root, stdout, [](const std::string& message) { error("%s", message.c_str()); });
  }
  return 0;
}

}  // namespace

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
