// SPDX-License-Identifier: Apache-2.0
// The driver log record printer on raw records. The input is the record as the driver would hand
// it over: the 32-byte header, then the payload. The printer's contract is kept as every reader
// keeps it: the record is writable, the header's length is cut to the payload bytes that came
// with it, and a zero byte follows the payload. The record gets a buffer of exactly that size,
// so any byte read or written past it is caught.
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "fuzz/support.h"
#include "libs/kestrel/logger.h"

using tarvo::kestrel::logger::Entry;
using tarvo::kestrel::logger::Format;
using tarvo::kestrel::logger::kestrel_logger_print;
using tarvo::kestrel::logger::kMaxPayload;
using tarvo::kestrel::logger::user_logger_entry_compat;

namespace {

struct Payload {
  const char* begin;
  const char* end;  // the zero byte after the payload
};

bool inside(const char* p, const Payload& payload) { return p >= payload.begin && p <= payload.end; }

// A filter sees a tag and a message that both end inside the record, each at a zero byte.
int check_entry(const Entry* entry, void* data) {
  const Payload& payload = *static_cast<const Payload*>(data);
  FUZZ_CHECK(inside(entry->tag, payload));
  FUZZ_CHECK(memchr(entry->tag, 0, static_cast<size_t>(payload.end - entry->tag) + 1) != nullptr);
  FUZZ_CHECK(entry->messageLen >= 0);
  FUZZ_CHECK(inside(entry->message, payload));
  FUZZ_CHECK(entry->message + entry->messageLen <= payload.end);
  FUZZ_CHECK(entry->message[entry->messageLen] == '\0');
  FUZZ_CHECK(entry->reserved == 0);
  // Let most records through to the printer; suppress those of one odd priority.
  return entry->priority == 0x7f ? 1 : 0;
}

struct FreeDeleter {
  void operator()(void* p) const { free(p); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);

  constexpr size_t kHeader = sizeof(user_logger_entry_compat);
  user_logger_entry_compat header = {};
  memcpy(&header, data, std::min(size, kHeader));
  const size_t given = size > kHeader ? std::min(size - kHeader, kMaxPayload) : 0;
  const size_t len = std::min<size_t>(header.len, given);

  std::unique_ptr<unsigned char, FreeDeleter> bytes(
      static_cast<unsigned char*>(malloc(kHeader + len + 1)));
  FUZZ_CHECK(bytes != nullptr);
  header.len = static_cast<uint16_t>(len);
  memcpy(bytes.get(), &header, kHeader);
  if (len > 0) memcpy(bytes.get() + kHeader, data + kHeader, len);
  bytes.get()[kHeader + len] = 0;

  auto* record = reinterpret_cast<user_logger_entry_compat*>(bytes.get());
  const Payload payload = {record->msg, record->msg + len};
  // The header's first reserved field is ignored by the printer; its low bits pick the format
  // and whether a filter is given, so one corpus reaches every combination.
  const Format format = (header.reserved0 & 1) != 0 ? tarvo::kestrel::logger::FORMAT_MESSAGE
                                                     : tarvo::kestrel::logger::FORMAT_DEFAULT;
  const bool filtered = (header.reserved0 & 2) == 0;
  const int ret = kestrel_logger_print(format, null_fd, record, filtered ? check_entry : nullptr,
                                       const_cast<Payload*>(&payload));
  FUZZ_CHECK(ret == 0 || ret == -1);
  return 0;
}
