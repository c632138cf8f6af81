// SPDX-License-Identifier: Apache-2.0
// The smaps walk on arbitrary file content, read from a scratch file as from /proc/<pid>/smaps.
// Each input is walked three times, asking for both heaps, for the native heap only and for the
// Java heap only: pss must come out the same every time, and a heap that was not asked for must
// stay untouched.
#include "fuzz/support.h"
#include "libs/kestrel/proc-memstat.h"

namespace memstat = tarvo::kestrel::memstat;

namespace {

memstat::proc_ms walk(const std::string& path, int flags) {
  memstat::proc_ms ms = {};
  FUZZ_CHECK(memstat::iterate_vma(0, flags, &ms, path));
  return ms;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static kestrel_fuzz::ScratchFile file("smaps");
  file.Write(data, size);

  const memstat::proc_ms both = walk(file.path(), memstat::kStatSmapsGroup);
  const memstat::proc_ms native = walk(file.path(), memstat::kStatPss | memstat::kStatNativeHeap);
  const memstat::proc_ms java = walk(file.path(), memstat::kStatPss | memstat::kStatJavaHeap);
  FUZZ_CHECK(native.pss == both.pss && java.pss == both.pss);
  FUZZ_CHECK(native.java_heap == 0);
  FUZZ_CHECK(java.native_heap == 0);
  return 0;
}
