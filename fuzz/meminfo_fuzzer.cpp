// SPDX-License-Identifier: Apache-2.0
// The /proc/meminfo parser of the aging daemon on arbitrary file content. A parse that succeeds
// must be repeatable: parsing the same content into a record full of other values sets every
// key it found to the same number and leaves the fields of absent keys alone.
#include <string.h>

#include <string>

#include "libs/kestrel/proc-meminfo.h"
#include "fuzz/support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string content(reinterpret_cast<const char*>(data), size);
  meminfo first = {};
  if (!parse_meminfo(content, &first)) return 0;

  constexpr uint64_t kUntouched = 0xa5a5a5a5a5a5a5a5ULL;
  meminfo second;
  memset(&second, 0xa5, sizeof(second));
  FUZZ_CHECK(parse_meminfo(content, &second));
  for (const meminfo_key& k : kMeminfoKeys) {
    const uint64_t a = first.*k.field, b = second.*k.field;
    FUZZ_CHECK(a == b || (a == 0 && b == kUntouched));
  }
  return 0;
}
