// SPDX-License-Identifier: Apache-2.0
// The fuzz targets' log backend and scratch files. Every message is formatted, so that a format
// string and its arguments that disagree show up under the sanitizers, and then dropped: a
// fuzzer logs millions of them.
#include "fuzz/support.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <sanitizer/common_interface_defs.h>

#include "platform/log.h"

extern "C" int __android_log_print(int /*prio*/, const char* /*tag*/, const char* fmt, ...) {
  char msg[1024];
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(msg, sizeof(msg), fmt, ap);
  va_end(ap);
  return 1;
}

namespace kestrel_fuzz {

void check_failed(const char* file, int line, const char* what) {
  char text[512];
  snprintf(text, sizeof(text), "%s:%d check failed: %s", file, line, what);
  // Also through the sanitizers' report channel, which stays open when the fuzzer runs with the
  // program's own standard error closed.
  fprintf(stderr, "%s\n", text);
  __sanitizer_report_error_summary(text);
  abort();
}

ScratchFile::ScratchFile(const char* stem) {
  std::string name = std::string("/tmp/kestrel-fuzz-") + stem + "-XXXXXX";
  fd_.reset(mkstemp(name.data()));
  if (fd_.get() < 0) {
    perror("mkstemp");
    abort();
  }
  path_ = name;
}

ScratchFile::~ScratchFile() { unlink(path_.c_str()); }

void ScratchFile::Write(const uint8_t* data, size_t size) {
  size_t done = 0;
  while (done < size) {
    ssize_t n = pwrite(fd_.get(), data + done, size - done, static_cast<off_t>(done));
    if (n <= 0) {
      perror("pwrite");
      abort();
    }
    done += static_cast<size_t>(n);
  }
  if (ftruncate(fd_.get(), static_cast<off_t>(size)) != 0) {
    perror("ftruncate");
    abort();
  }
}

}  // namespace kestrel_fuzz
