// SPDX-License-Identifier: Apache-2.0
// The figures of a driver's proc_ms record, listed once: the mask bit that asks for each, its
// name in scenario files, the /proc/<pid>/status line showing the same figure, its meminfo
// column, and where it lies in the record. The meminfo table is built from this list and the
// driver simulator parses, masks and reads the host's processes with it.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "libs/kestrel/driver.h"

namespace tarvo::kestrel::memstat {

struct ProcMsField {
  enum Kind {
    kFlag,    // 0 or 1, shown as N or Y
    kNumber,  // a signed count shown as it is
    kPages,   // a count of 4 KiB pages, shown in kB
  };
  uint32_t bit;
  const char* name;   // the key of a scenario's proc line
  const char* status; // the /proc/<pid>/status key of the same figure (kB for pages), or null
  const char* title;  // the meminfo column title, right-aligned in `width`
  int width;
  Kind kind;
  size_t offset;
  size_t size;
};

#define KESTREL_PROC_MS_FIELD(bit, name, status, title, width, kind, member) \
  ProcMsField { bit, name, status, title, width, ProcMsField::kind, offsetof(proc_ms, member), \
                sizeof(proc_ms::member) }

// In the order of the meminfo columns, which is not the order of the bits. comm, the one text
// field, is not listed: it is always the last column.
inline constexpr ProcMsField kProcMsFields[] = {
    KESTREL_PROC_MS_FIELD(kStat32, "compat32", nullptr, "32", 2, kFlag, compat32),
    KESTREL_PROC_MS_FIELD(kStatUid, "uid", "Uid:", "uid", 5, kNumber, uid),
    KESTREL_PROC_MS_FIELD(kStatPid, "pid", nullptr, "pid", 5, kNumber, pid),
    KESTREL_PROC_MS_FIELD(kStatPpid, "ppid", "PPid:", "ppid", 5, kNumber, ppid),
    KESTREL_PROC_MS_FIELD(kStatOom, "oom", nullptr, "oom", 5, kNumber, oom_score_adj),
    KESTREL_PROC_MS_FIELD(kStatFds, "fds", nullptr, "fds", 5, kNumber, fds),
    KESTREL_PROC_MS_FIELD(kStatVss, "vss", "VmSize:", "vss", 9, kPages, vss),
    KESTREL_PROC_MS_FIELD(kStatAnon, "anon", "RssAnon:", "anon", 7, kPages, anon),
    KESTREL_PROC_MS_FIELD(kStatFile, "file", "RssFile:", "file", 7, kPages, file),
    KESTREL_PROC_MS_FIELD(kStatShmem, "shmem", "RssShmem:", "shmem", 7, kPages, shmem),
    KESTREL_PROC_MS_FIELD(kStatSwap, "swap", "VmSwap:", "swap", 7, kPages, swap),
    KESTREL_PROC_MS_FIELD(kStatPss, "pss", nullptr, "pss", 7, kPages, pss),
    KESTREL_PROC_MS_FIELD(kStatJavaHeap, "java_heap", nullptr, "JHeap", 7, kPages, java_heap),
    KESTREL_PROC_MS_FIELD(kStatNativeHeap, "native_heap", nullptr, "NHeap", 7, kPages, native_heap),
    KESTREL_PROC_MS_FIELD(kStatDmabuf, "dmabuf", nullptr, "dma-buf", 7, kPages, dmabuf),
    KESTREL_PROC_MS_FIELD(kStatAshmem, "ashmem", nullptr, "ashmem", 7, kPages, ashmem),
    KESTREL_PROC_MS_FIELD(kStatGpu, "gpu", nullptr, "gpu", 7, kPages, gpu),
};

#undef KESTREL_PROC_MS_FIELD

// The field's value: signed for the counts the record keeps signed, unsigned for the others.
inline long long proc_ms_get(const proc_ms& ms, const ProcMsField& f) {
  const auto* at = reinterpret_cast<const unsigned char*>(&ms) + f.offset;
  switch (f.size) {
    case 1: { uint8_t v; memcpy(&v, at, 1); return v; }
    case 2: { int16_t v; memcpy(&v, at, 2); return v; }
    default: {
      if (f.kind == ProcMsField::kPages) { uint32_t v; memcpy(&v, at, 4); return v; }
      int32_t v; memcpy(&v, at, 4); return v;
    }
  }
}

// Stores `value` cut to the field's width, as a cast to the field's type would.
inline void proc_ms_set(proc_ms* ms, const ProcMsField& f, long long value) {
  auto* at = reinterpret_cast<unsigned char*>(ms) + f.offset;
  const uint32_t v = static_cast<uint32_t>(value);
  if (f.size == 1) { uint8_t b = static_cast<uint8_t>(v); memcpy(at, &b, 1); }
  if (f.size == 2) { uint16_t h = static_cast<uint16_t>(v); memcpy(at, &h, 2); }
  if (f.size == 4) memcpy(at, &v, 4);
}

// The meminfo table's header and one row for the figures of `mask`, each cell right-aligned in
// its column and followed by a blank; the last column is comm, or the command line when one is
// given (the header then says "cmdline"). Not cut to any width.
std::string proc_ms_header(unsigned mask, bool cmdline);
std::string proc_ms_row(const proc_ms& ms, unsigned mask, const char* cmdline);

// Copies the field from one record to another.
inline void proc_ms_copy(const proc_ms& from, proc_ms* to, const ProcMsField& f) {
  memcpy(reinterpret_cast<unsigned char*>(to) + f.offset,
         reinterpret_cast<const unsigned char*>(&from) + f.offset, f.size);
}

}  // namespace tarvo::kestrel::memstat
