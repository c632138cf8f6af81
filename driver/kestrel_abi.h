/* SPDX-License-Identifier: GPL-2.0 WITH Linux-syscall-note */
/*
 * The interface of /dev/kestrel: request numbers and every record that crosses
 * it. Shared by the kernel module and by the tool (C and C++), so each layout
 * exists once; the asserts keep 32- and 64-bit builds of either side agreeing.
 */
#ifndef KESTREL_ABI_H
#define KESTREL_ABI_H

#include <linux/types.h>
#ifdef __KERNEL__
#include <linux/stddef.h>
#else
#include <stddef.h>
#endif

#ifdef __cplusplus
#define KESTREL_ABI_ASSERT(e) static_assert(e, #e)
#else
#define KESTREL_ABI_ASSERT(e) _Static_assert(e, #e)
#endif

/*
 * Requests are plain numbers, without _IOC direction or size bits: the tool
 * issues them as they are.
 */
#define KESTREL_IOC_GET_VERSION		0xFA01	/* no argument */
#define KESTREL_IOC_SET_SCENE		0xFA02	/* struct kestrel_scene */
#define KESTREL_IOC_CLEAR_SCENE		0xFA03	/* struct kestrel_scene */
#define KESTREL_IOC_PID_MEMSTAT		0xFB01	/* struct kestrel_proc_pid_ms */
#define KESTREL_IOC_SIZE_MEMSTATS	0xFB02	/* kestrel_proc_size_msu */
#define KESTREL_IOC_UID_MEMSTATS	0xFB03	/* kestrel_proc_size_msu */

/* GET_VERSION returns (major << 16) | minor. */
#define KESTREL_VERSION_MAJOR	1
#define KESTREL_VERSION_MINOR	0

/* Scenes 0 .. KESTREL_SCENES - 1 exist. */
#define KESTREL_SCENES		2

struct kestrel_scene {
	__u64 reserved0;	/* must be 0 */
	__u64 scene;
	__u64 reserved1;	/* must be 0 */
};

/* Statistics mask: one bit per figure of struct kestrel_proc_ms. */
#define KESTREL_STAT_UID	0x1
#define KESTREL_STAT_PID	0x2
#define KESTREL_STAT_PPID	0x4
#define KESTREL_STAT_OOM	0x8
#define KESTREL_STAT_32		0x10
#define KESTREL_STAT_COMM	0x20
#define KESTREL_STAT_VSS	0x40
#define KESTREL_STAT_ANON	0x80
#define KESTREL_STAT_FILE	0x100
#define KESTREL_STAT_SHMEM	0x200
#define KESTREL_STAT_SWAP	0x400
#define KESTREL_STAT_FDS	0x800
#define KESTREL_STAT_ASHMEM	0x1000
#define KESTREL_STAT_DMABUF	0x2000
#define KESTREL_STAT_PSS	0x4000
#define KESTREL_STAT_NATIVE_HEAP 0x8000
#define KESTREL_STAT_JAVA_HEAP	0x10000
#define KESTREL_STAT_GPU	0x20000
#define KESTREL_STAT_ALL	0x3ffff

/* A table request takes 1 .. KESTREL_MAX_COUNT records. */
#define KESTREL_MAX_COUNT	4096

/*
 * One process. Memory figures count 4 KiB units whatever the kernel's page
 * size, saturating at 2^32 - 1. The driver fills the figures the mask asks
 * for and pid; every other byte is zero.
 */
struct kestrel_proc_ms {
	char comm[16];
	__u8 compat32;
	__u8 reserved0;
	__s16 oom_score_adj;
	__s32 fds;
	__s32 uid;
	__s32 pid;
	__s32 ppid;
	__u32 anon;
	__u32 file;
	__u32 shmem;
	__u32 swap;
	__u32 vss;
	__u32 pss;
	__u32 reserved1;
	__u32 java_heap;
	__u32 native_heap;
	__u32 ashmem;
	__u32 dmabuf;
	__u32 gpu;
};

/* PID_MEMSTAT: the caller sets flags and pid, the driver fills ms. */
struct kestrel_proc_pid_ms {
	__u32 flags;
	__s32 pid;
	struct kestrel_proc_ms ms;
};

/*
 * SIZE_MEMSTATS and UID_MEMSTATS: on entry count is the room in ms[]; the
 * driver sets it to the number of records filled.
 */
struct kestrel_proc_size_msu {
	__u32 flags;
	__u32 uid;
	__u32 count;
	struct kestrel_proc_ms ms[];
};

/*
 * The log: each read() returns this header and len payload bytes: a priority
 * byte, the tag and its NUL, the message and its NUL. A write() carries the
 * payload alone.
 */
struct kestrel_log_entry {
	__u16 len;
	__u16 reserved0;
	__s32 pid;
	__s32 tid;
	__s32 reserved1;
	__s64 sec;
	__s64 nsec;
	char msg[];
};

#define KESTREL_LOG_MIN_PAYLOAD	3
#define KESTREL_LOG_MAX_PAYLOAD	4044
#define KESTREL_LOG_MAX_RECORD	\
	(sizeof(struct kestrel_log_entry) + KESTREL_LOG_MAX_PAYLOAD)

KESTREL_ABI_ASSERT(sizeof(struct kestrel_scene) == 24);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_scene, reserved0) == 0);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_scene, scene) == 8);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_scene, reserved1) == 16);

KESTREL_ABI_ASSERT(sizeof(struct kestrel_proc_ms) == 84);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, comm) == 0);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, compat32) == 16);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, reserved0) == 17);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, oom_score_adj) == 18);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, fds) == 20);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, uid) == 24);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, pid) == 28);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, ppid) == 32);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, anon) == 36);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, file) == 40);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, shmem) == 44);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, swap) == 48);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, vss) == 52);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, pss) == 56);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, reserved1) == 60);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, java_heap) == 64);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, native_heap) == 68);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, ashmem) == 72);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, dmabuf) == 76);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_ms, gpu) == 80);

KESTREL_ABI_ASSERT(sizeof(struct kestrel_proc_pid_ms) == 92);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_pid_ms, flags) == 0);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_pid_ms, pid) == 4);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_pid_ms, ms) == 8);

KESTREL_ABI_ASSERT(sizeof(struct kestrel_proc_size_msu) == 12);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_size_msu, flags) == 0);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_size_msu, uid) == 4);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_size_msu, count) == 8);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_proc_size_msu, ms) == 12);

KESTREL_ABI_ASSERT(sizeof(struct kestrel_log_entry) == 32);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, len) == 0);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, reserved0) == 2);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, pid) == 4);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, tid) == 8);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, reserved1) == 12);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, sec) == 16);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, nsec) == 24);
KESTREL_ABI_ASSERT(offsetof(struct kestrel_log_entry, msg) == 32);
KESTREL_ABI_ASSERT(KESTREL_LOG_MAX_RECORD == 4076);

#endif /* KESTREL_ABI_H */
