// SPDX-License-Identifier: Apache-2.0
// The smaps walk cuts each line into its key and value with a hand-written scanner in place of
// sscanf("%63s %n"), which cost more than the rest of the walk. This target holds the two to the
// same answer on any line: whether there is a key, which bytes it has (at most 63), and where the
// value starts.
#include <stdio.h>
#include <string.h>

#include <memory>

#include "fuzz/support.h"
#include "libs/kestrel/proc-memstat.h"

using tarvo::kestrel::memstat::scan_smaps_key;
using tarvo::kestrel::memstat::SmapsKey;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // A line as the walk hands it over: zero-terminated, in a buffer of exactly that size.
  std::unique_ptr<char[]> line(new char[size + 1]);
  if (size > 0) memcpy(line.get(), data, size);
  line[size] = '\0';

  char token[128] = {};
  int value = -1;
  const int scanned = sscanf(line.get(), "%63s %n", token, &value);
  SmapsKey key = {};
  const bool found = scan_smaps_key(line.get(), &key);

  FUZZ_CHECK(found == (scanned == 1));
  if (!found) return 0;
  const size_t length = strlen(line.get());
  FUZZ_CHECK(key.len == strlen(token));
  FUZZ_CHECK(key.key >= line.get() && key.key + key.len <= line.get() + length);
  FUZZ_CHECK(memcmp(key.key, token, key.len) == 0);
  FUZZ_CHECK(value >= 0 && key.value == static_cast<size_t>(value));
  return 0;
}
