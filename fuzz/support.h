// SPDX-License-Identifier: Apache-2.0
// What the fuzz targets share: a check that stops the run when a reader breaks one of its own
// promises, and a scratch file for the readers that take a path instead of bytes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include <android-base/unique_fd.h>

// abort() is reported by libFuzzer like a crash, with the input that caused it saved.
#define FUZZ_CHECK(cond)                                                              \
  do {                                                                                \
    if (!(cond)) ::kestrel_fuzz::check_failed(__FILE__, __LINE__, #cond);            \
  } while (0)

namespace kestrel_fuzz {

[[noreturn]] void check_failed(const char* file, int line, const char* what);

// A file under /tmp, created on first use and removed when the program ends normally, that each
// input is written to before the reader under test opens it by name.
class ScratchFile {
 public:
  explicit ScratchFile(const char* stem);
  ~ScratchFile();
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  const std::string& path() const { return path_; }

  // Replaces the whole content. A write that fails aborts: it says nothing about the reader.
  void Write(const uint8_t* data, size_t size);

 private:
  std::string path_;
  android::base::unique_fd fd_;
};

}  // namespace kestrel_fuzz
