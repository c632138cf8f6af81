// SPDX-License-Identifier: Apache-2.0
// The driver's table answers through the meminfo table: the input is one answer to the table
// request, a count and the records behind it as any driver, sound or broken, might fill them,
// and every column of every record is built into a row, for the system or for one uid, with
// comm or with a command line. Whatever the count and the figures, nothing may be read outside
// the table and no figure may break its cell.
//
// The program is linked with --wrap=open and --wrap=ioctl: opening /dev/kestrel gives a
// descriptor of /dev/null, and the table requests on it are answered from the input. Everything
// else goes to the real calls. Only this program is linked that way.
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "fuzz/support.h"
#include "libs/kestrel/driver.h"
#include "libs/kestrel/proc-memstat.h"
#include "libs/kestrel/proc-ms-fields.h"

namespace {

namespace driver = tarvo::kestrel::driver;
using namespace tarvo::kestrel::memstat;

int g_device_fd = -1;

// The answer the next table request gets: the count the driver sets, then its records.
uint32_t g_count = 0;
const uint8_t* g_records = nullptr;
size_t g_records_size = 0;

// Fills the records the command made room for (the count it passed in), never more: a driver
// writes only into the buffer it was given. Then sets the count to whatever the input says.
void answer_table(proc_size_msu* table) {
  const size_t room = static_cast<size_t>(table->count) * sizeof(proc_ms);
  const size_t n = std::min(room, g_records_size);
  memcpy(table->ms, g_records, n);
  memset(reinterpret_cast<char*>(table->ms) + n, 0, room - n);
  table->count = g_count;
}

}  // namespace

extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __real_ioctl(int fd, unsigned long request, ...);

extern "C" int __wrap_open(const char* path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(ap, mode_t) : 0;
  va_end(ap);
  if (strcmp(path, driver::kDevicePath) != 0) return __real_open(path, flags, mode);
  if (g_device_fd < 0) g_device_fd = __real_open("/dev/null", O_RDONLY | O_CLOEXEC);
  return g_device_fd;
}

extern "C" int __wrap_ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void* arg = va_arg(ap, void*);
  va_end(ap);
  if (fd != g_device_fd || g_device_fd < 0) return __real_ioctl(fd, request, arg);
  switch (request) {
    case driver::kSizeMemStats:
    case driver::kUidMemStats:
      answer_table(static_cast<proc_size_msu*>(arg));
      return 0;
    default:
      return __real_ioctl(fd, request, arg);
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Byte 0 picks the request and the last column, bytes 1 to 4 are the count, the rest are the
  // records.
  if (size < 5) return 0;
  memcpy(&g_count, data + 1, sizeof(g_count));
  g_records = data + 5;
  g_records_size = size - 5;

  constexpr int kCapacity = 400;
  ProcMemStatHelper helper;
  helper.capacity = kCapacity;
  const bool ok = (data[0] & 1) ? ProcMemStat::UidSizeMemStats(helper, kStatAll, 1000)
                                : ProcMemStat::SizeMemStats(helper, kStatAll, kCapacity);
  FUZZ_CHECK(ok);
  FUZZ_CHECK(helper.size_msu->count <= static_cast<uint32_t>(kCapacity));
  const char* cmdline = (data[0] & 2) ? "app --flag" : nullptr;
  proc_ms_header(kStatAll, cmdline != nullptr);
  for (uint32_t i = 0; i < helper.size_msu->count; i++) {
    proc_ms_row(helper.size_msu->ms[i], kStatAll, cmdline);
  }
  return 0;
}
