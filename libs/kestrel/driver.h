// SPDX-License-Identifier: Apache-2.0
// The interface of the kestrel kernel driver (/dev/kestrel) under the tool's own names. The
// request numbers and record layouts live once, in the C header that the module itself builds
// with (driver/kestrel_abi.h, which asserts every size and offset); this file gives them their
// C++ names.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "driver/kestrel_abi.h"

namespace tarvo::kestrel::driver {

inline constexpr const char kDevicePath[] = "/dev/kestrel";

// Plain request numbers: no _IOC direction or size bits.
inline constexpr unsigned long kGetVersion = KESTREL_IOC_GET_VERSION;
inline constexpr unsigned long kSetScene = KESTREL_IOC_SET_SCENE;
inline constexpr unsigned long kClearScene = KESTREL_IOC_CLEAR_SCENE;
inline constexpr unsigned long kPidMemStat = KESTREL_IOC_PID_MEMSTAT;
inline constexpr unsigned long kSizeMemStats = KESTREL_IOC_SIZE_MEMSTATS;
inline constexpr unsigned long kUidMemStats = KESTREL_IOC_UID_MEMSTATS;

// Argument of the scene requests.
using scene_request = ::kestrel_scene;

// Memory figures are counts of 4 KiB pages.
inline constexpr unsigned kPageKiB = 4;

}  // namespace tarvo::kestrel::driver

namespace tarvo::kestrel::memstat {

// Statistics mask: one bit per figure; only the low 18 bits mean anything.
enum : uint32_t {
  kStatUid = KESTREL_STAT_UID,
  kStatPid = KESTREL_STAT_PID,
  kStatPpid = KESTREL_STAT_PPID,
  kStatOom = KESTREL_STAT_OOM,
  kStat32 = KESTREL_STAT_32,
  kStatComm = KESTREL_STAT_COMM,
  kStatVss = KESTREL_STAT_VSS,
  kStatAnon = KESTREL_STAT_ANON,
  kStatFile = KESTREL_STAT_FILE,
  kStatShmem = KESTREL_STAT_SHMEM,
  kStatSwap = KESTREL_STAT_SWAP,
  kStatFds = KESTREL_STAT_FDS,
  kStatAshmem = KESTREL_STAT_ASHMEM,
  kStatDmabuf = KESTREL_STAT_DMABUF,
  kStatPss = KESTREL_STAT_PSS,
  kStatNativeHeap = KESTREL_STAT_NATIVE_HEAP,
  kStatJavaHeap = KESTREL_STAT_JAVA_HEAP,
  kStatGpu = KESTREL_STAT_GPU,

  kStatCommon = 0x7ff,
  kStatFdGroup = 0x3800,
  kStatSmapsGroup = 0x1c000,
  kStatGpuGroup = 0x20000,
  kStatAll = KESTREL_STAT_ALL,
};

// One process as the driver fills it; 84 bytes, figures in 4 KiB pages.
using proc_ms = ::kestrel_proc_ms;
static_assert(alignof(proc_ms) == 4);

// Argument of the single-process request.
using proc_pid_ms = ::kestrel_proc_pid_ms;

// Argument of the two table requests: `count` records follow the 12-byte head. On entry `count`
// is the room in the buffer; the driver sets it to the number of records it filled.
using proc_size_msu = ::kestrel_proc_size_msu;

inline constexpr size_t proc_size_msu_bytes(int capacity) {
  return sizeof(proc_size_msu) + static_cast<size_t>(capacity) * sizeof(proc_ms);
}

}  // namespace tarvo::kestrel::memstat

namespace tarvo::kestrel::logger {

// One log record as the driver hands it out, one per read: this header, then `len` payload
// bytes (priority byte, tag and its zero byte, message and its zero byte).
using user_logger_entry_compat = ::kestrel_log_entry;
static_assert(alignof(user_logger_entry_compat) == 8);

// A reader takes at most this many bytes per record and puts a zero byte after the payload.
inline constexpr size_t kMaxRecordRead = KESTREL_LOG_MAX_RECORD;
inline constexpr size_t kMaxPayload = kMaxRecordRead - sizeof(user_logger_entry_compat);

}  // namespace tarvo::kestrel::logger
