// SPDX-License-Identifier: Apache-2.0
// The driver's table answers through the meminfo command: the input is one answer to the table
// request, a count and the records behind it as any driver, sound or broken, might fill them,
// and the command prints every column of it, for the system or for one uid, with comm or with
// the command line. Whatever the count and the figures, nothing may be read outside the table
// and no figure may break its cell. (The command keeps its column mask and its command-line
// switch for the life of the process, so column switches would not vary from input to input.)
//
// The program is linked with --wrap=open, --wrap=ioctl and --wrap=exit: opening /dev/kestrel
// gives a descriptor of /dev/null, the version and table requests on it are answered from the
// input, and the exit of "meminfo: read nothing." (a count of 0) jumps back here. Everything
// else goes to the real calls. Only this program is linked that way.
#include <fcntl.h>
#include <sanitizer/lsan_interface.h>
#include <setjmp.h>
#include <stdarg.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "cmds/cmds.h"
#include "fuzz/support.h"
#include "libs/kestrel/driver.h"

namespace {

namespace driver = tarvo::kestrel::driver;
using tarvo::kestrel::memstat::proc_ms;
using tarvo::kestrel::memstat::proc_size_msu;

jmp_buf g_exit_jump;
bool g_in_command = false;
int g_exit_status = 0;
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

extern "C" [[noreturn]] void __real_exit(int status);
extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __real_ioctl(int fd, unsigned long request, ...);

extern "C" [[noreturn]] void __wrap_exit(int status) {
  if (g_in_command) {
    g_exit_status = status;
    longjmp(g_exit_jump, 1);
  }
  __real_exit(status);
}

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
    case driver::kGetVersion:
      return 0x00010000;
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
  std::vector<const char*> argv = {"meminfo"};
  if (data[0] & 1) argv.insert(argv.end(), {"-u", "1000"});
  if (data[0] & 2) argv.push_back("-e");
  argv.push_back(nullptr);
  memcpy(&g_count, data + 1, sizeof(g_count));
  g_records = data + 5;
  g_records_size = size - 5;

  // A count of 0 ends the command through die, which on a device ends the process with the
  // command's buffers still held; here it jumps back, so those are not leaks.
  const bool ends_in_die = g_count == 0;
  if (ends_in_die) __lsan_disable();
  g_in_command = true;
  if (setjmp(g_exit_jump) == 0) {
    cmd_meminfo(static_cast<int>(argv.size() - 1), argv.data());
  } else {
    FUZZ_CHECK(ends_in_die && g_exit_status == 129);
  }
  g_in_command = false;
  if (ends_in_die) __lsan_enable();
  return 0;
}
