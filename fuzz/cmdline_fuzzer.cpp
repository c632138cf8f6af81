// SPDX-License-Identifier: Apache-2.0
// pid_cmdline's rules on the raw bytes of a cmdline file. The bytes get a buffer of exactly
// their size plus the one byte the function may set, and the text goes to a buffer of the 511
// bytes callers must at least provide, so any access past either is caught.
#include <string.h>

#include <algorithm>
#include <memory>

#include "fuzz/support.h"
#include "parse-options/pid_cmdline.h"

namespace {

// The most a single read of a cmdline file hands over.
constexpr size_t kMaxRead = kCmdlineBufferSize - 1;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  size = std::min(size, kMaxRead);  // what the one read of the file would return
  std::unique_ptr<char[]> bytes(new char[size + 1]);
  if (size > 0) memcpy(bytes.get(), data, size);
  std::unique_ptr<char[]> text(new char[kMaxRead]());
  size_t len = 0;
  const bool ok = pid_cmdline_bytes(bytes.get(), size, text.get(), &len);
  if (!ok) len = 0;  // a failure leaves the buffer untouched
  for (size_t i = len; i < kMaxRead; i++) FUZZ_CHECK(text[i] == '\0');
  if (!ok) return 0;

  FUZZ_CHECK(size >= 2);
  // At most 510 bytes, one line, without the blanks that trailing empty arguments leave behind
  // (only the first byte of the text is always kept).
  FUZZ_CHECK(len <= kMaxRead - 1);
  FUZZ_CHECK(memchr(text.get(), '\0', len) == nullptr);
  FUZZ_CHECK(memchr(text.get(), '\n', len) == nullptr);
  FUZZ_CHECK(len <= 1 || text[len - 1] != ' ');
  return 0;
}
