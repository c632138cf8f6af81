// SPDX-License-Identifier: Apache-2.0
// cmd_config.cpp: shows the device's memory configuration. --list reports the present memory
// state of the system; --load reads this device's tier from the vendor XML file and prints the
// chosen groups. Nothing is written: settings are only read and shown.
#include <stdio.h>
#include <string.h>

#include <string>

#include "cmds/cmds.h"
#include "libs/kestrel/config.h"
#include "parse-options/parse-options.h"
#include "platform/log.h"

namespace {

using namespace tarvo::kestrel::config;

constexpr const char* kLogTag = "kestrel-config";

const char* const kUsage[] = {"kestrel config [options] [--]", nullptr};

struct Groups {
  const char* word;
  bool zram_opt;
  bool zram0;
  bool chp_zram;
};

// Group words are matched exactly, case included.
constexpr Groups kGroups[] = {
    {"all", true, true, true},
    {"zram_opt", true, false, false},
    {"zram0", false, true, false},
    {"chp_zram", false, false, true},
};

// The whole tier section is read whatever the group, so an invalid value anywhere in it fails
// the load. At 24 GiB and more the tier is -1, whose section is "memory_-1g".
int load(const char* word, const char* path) {
  int tier = ram_tier(total_ram_kib());
  const Groups* groups = nullptr;
  for (const Groups& row : kGroups) {
    if (strcmp(word, row.word) == 0) groups = &row;
  }
  if (groups == nullptr) {
    printf("invalid load option: %s\n", word);
    return -1;
  }
  Configure cfg;
  std::string err;
  if (load_config(path, tier, &cfg, &err) != 0) return error("%s", err.c_str());
  show_config(cfg, groups->zram_opt, groups->zram0, groups->chp_zram);
  return 0;
}

}  // namespace

int cmd_config(int argc, const char** argv) {
  __android_log_print(ANDROID_LOG_INFO, kLogTag, "config enter");
  int list = 0;
  const char* group = nullptr;
  const char* file = nullptr;
  const option options[] = {
      {.type = OPTION_COUNTUP, .long_name = "list", .value = &list,
       .help = "print all memory options"},
      {.type = OPTION_STRING, .long_name = "load", .value = &group,
       .help = "load [all|zram_opt|zram0|chp_zram] options"},
      {.type = OPTION_STRING, .long_name = "file", .value = &file,
       .help = "configuration file path"},
      {.type = OPTION_END},
  };
  parse_options(argc, argv, options, kUsage);

  if (list != 0) {
    if (!show_system_report(total_ram_kib())) die("unsupport ram\n");
    return 0;
  }
  if (group == nullptr) usage_with_options(kUsage, options);
  int status = load(group, file != nullptr ? file : kDefaultConfigPath);
  __android_log_print(ANDROID_LOG_INFO, kLogTag, "config exit %d", status);
  return status;
}
