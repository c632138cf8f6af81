// SPDX-License-Identifier: Apache-2.0
// The memory configuration loader on arbitrary file content, read from a scratch file as the
// config command reads the vendor file, then printed as the command prints it. The tier is fixed
// at 8 GiB, so the seeds carry a memory_8g section.
#include <stdio.h>

#include "libs/kestrel/config.h"
#include "fuzz/support.h"

using tarvo::kestrel::config::Configure;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static kestrel_fuzz::ScratchFile file("config");
  static FILE* const null_out = fopen("/dev/null", "we");
  constexpr int kTier = 8;

  file.Write(data, size);
  Configure cfg;
  std::string err;
  const int ret = tarvo::kestrel::config::load_config(file.path(), kTier, &cfg, &err);
  FUZZ_CHECK(ret == 0 || ret == -1);
  if (ret == 0) {
    FUZZ_CHECK(cfg.ram == kTier);
    FUZZ_CHECK(cfg.hybridswap_enable == 0 || cfg.hybridswap_enable == 1);
    tarvo::kestrel::config::show_config(cfg, true, true, true, null_out);
  }
  return 0;
}
