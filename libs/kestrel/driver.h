// SPDX-License-Identifier: Apache-2.0
// The interface of the kestrel kernel driver (/dev/kestrel): its request numbers and every record
// that crosses it. The layouts are fixed by the driver; the asserts below keep an arm64 build and
// an x86_64 build from disagreeing on any size or offset.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace tarvo::kestrel::driver {

inline constexpr const char kDevicePath[] = "/dev/kestrel";

// Plain request numbers: no _IOC direction or size bits.
inline constexpr unsigned long kGetVersion = 0xFA01;
inline constexpr unsigned long kSetScene = 0xFA02;
inline constexpr unsigned long kClearScene = 0xFA03;
inline constexpr unsigned long kPidMemStat = 0xFB01;
inline constexpr unsigned long kSizeMemStats = 0xFB02;
inline constexpr unsigned long kUidMemStats = 0xFB03;

// Argument of the scene requests.
struct scene_request {
  uint64_t reserved0;
  uint64_t scene;
  uint64_t reserved1;
};
static_assert(sizeof(scene_request) == 24);
static_assert(offsetof(scene_request, scene) == 8);

// Memory figures are counts of 4 KiB pages.
inline constexpr unsigned kPageKiB = 4;

}  // namespace tarvo::kestrel::driver

namespace tarvo::kestrel::memstat {

// Statistics mask: one bit per figure; only the low 18 bits mean anything.
enum : uint32_t {
  kStatUid = 0x1,
  kStatPid = 0x2,
  kStatPpid = 0x4,
  kStatOom = 0x8,
  kStat32 = 0x10,
  kStatComm = 0x20,
  kStatVss = 0x40,
  kStatAnon = 0x80,
  kStatFile = 0x100,
  kStatShmem = 0x200,
  kStatSwap = 0x400,
  kStatFds = 0x800,
  kStatAshmem = 0x1000,
  kStatDmabuf = 0x2000,
  kStatPss = 0x4000,
  kStatNativeHeap = 0x8000,
  kStatJavaHeap = 0x10000,
  kStatGpu = 0x20000,

  kStatCommon = 0x7ff,
  kStatFdGroup = 0x3800,
  kStatSmapsGroup = 0x1c000,
  kStatGpuGroup = 0x20000,
  kStatAll = 0x3ffff,
};

// One process as the driver fills it; 84 bytes, figures in pages.
struct proc_ms {
  char comm[16];
  uint8_t compat32;
  uint8_t reserved0;
  int16_t oom_score_adj;
  int32_t fds;
  int32_t uid;
  int32_t pid;
  int32_t ppid;
  uint32_t anon;
  uint32_t file;
  uint32_t shmem;
  uint32_t swap;
  uint32_t vss;
  uint32_t pss;
  uint32_t reserved1;
  uint32_t java_heap;
  uint32_t native_heap;
  uint32_t ashmem;
  uint32_t dmabuf;
  uint32_t gpu;
};
static_assert(sizeof(proc_ms) == 84);
static_assert(alignof(proc_ms) == 4);
static_assert(offsetof(proc_ms, comm) == 0);
static_assert(offsetof(proc_ms, compat32) == 16);
static_assert(offsetof(proc_ms, oom_score_adj) == 18);
static_assert(offsetof(proc_ms, fds) == 20);
static_assert(offsetof(proc_ms, uid) == 24);
static_assert(offsetof(proc_ms, pid) == 28);
static_assert(offsetof(proc_ms, ppid) == 32);
static_assert(offsetof(proc_ms, anon) == 36);
static_assert(offsetof(proc_ms, file) == 40);
static_assert(offsetof(proc_ms, shmem) == 44);
static_assert(offsetof(proc_ms, swap) == 48);
static_assert(offsetof(proc_ms, vss) == 52);
static_assert(offsetof(proc_ms, pss) == 56);
static_assert(offsetof(proc_ms, reserved1) == 60);
static_assert(offsetof(proc_ms, java_heap) == 64);
static_assert(offsetof(proc_ms, native_heap) == 68);
static_assert(offsetof(proc_ms, ashmem) == 72);
static_assert(offsetof(proc_ms, dmabuf) == 76);
static_assert(offsetof(proc_ms, gpu) == 80);

// Argument of the single-process request.
struct proc_pid_ms {
  uint32_t flags;
  int32_t pid;
  proc_ms ms;
};
static_assert(sizeof(proc_pid_ms) == 92);
static_assert(offsetof(proc_pid_ms, pid) == 4);
static_assert(offsetof(proc_pid_ms, ms) == 8);

// Argument of the two table requests: `count` records follow the 12-byte head. On entry `count`
// is the room in the buffer; the driver sets it to the number of records it filled.
struct proc_size_msu {
  uint32_t flags;
  uint32_t uid;
  uint32_t count;
  proc_ms ms[];
};
static_assert(sizeof(proc_size_msu) == 12);
static_assert(offsetof(proc_size_msu, uid) == 4);
static_assert(offsetof(proc_size_msu, count) == 8);
static_assert(offsetof(proc_size_msu, ms) == 12);

inline constexpr size_t proc_size_msu_bytes(int capacity) {
  return sizeof(proc_size_msu) + static_cast<size_t>(capacity) * sizeof(proc_ms);
}

}  // namespace tarvo::kestrel::memstat

namespace tarvo::kestrel::logger {

// One log record as the driver hands it out, one per read: this header, then `len` payload
// bytes (priority byte, tag and its zero byte, message and its zero byte).
struct user_logger_entry_compat {
  uint16_t len;
  uint16_t reserved0;
  int32_t pid;
  int32_t tid;
  int32_t reserved1;
  int64_t sec;
  int64_t nsec;
  char msg[];
};
static_assert(sizeof(user_logger_entry_compat) == 32);
static_assert(alignof(user_logger_entry_compat) == 8);
static_assert(offsetof(user_logger_entry_compat, len) == 0);
static_assert(offsetof(user_logger_entry_compat, pid) == 4);
static_assert(offsetof(user_logger_entry_compat, tid) == 8);
static_assert(offsetof(user_logger_entry_compat, sec) == 16);
static_assert(offsetof(user_logger_entry_compat, nsec) == 24);
static_assert(offsetof(user_logger_entry_compat, msg) == 32);

// A reader takes at most this many bytes per record and puts a zero byte after the payload.
inline constexpr size_t kMaxRecordRead = 4076;
inline constexpr size_t kMaxPayload = kMaxRecordRead - sizeof(user_logger_entry_compat);

}  // namespace tarvo::kestrel::logger
