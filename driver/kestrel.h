/* SPDX-License-Identifier: GPL-2.0 */
/*
 * What the parts of the kestrel module share: the log ring (log.c), the
 * process figures (stats.c) and the device itself (main.c).
 */
#ifndef KESTREL_H
#define KESTREL_H

#include <linux/fs.h>
#include <linux/poll.h>
#include <linux/types.h>

#include "kestrel_abi.h"

#define KESTREL_TAG "kestrel"

/* log.c */
struct kestrel_reader;

int kestrel_log_init(size_t size);
void kestrel_log_exit(void);
struct kestrel_reader *kestrel_reader_new(void);
void kestrel_reader_free(struct kestrel_reader *reader);
ssize_t kestrel_log_read(struct kestrel_reader *reader, char __user *buf,
			 size_t count, bool nonblock);
ssize_t kestrel_log_write_iter(struct iov_iter *from);
__poll_t kestrel_log_poll(struct kestrel_reader *reader, struct file *file,
			  poll_table *wait);
void kestrel_log_printf(u8 priority, const char *tag, const char *fmt, ...)
	__printf(3, 4);

/* stats.c */
long kestrel_pid_memstat(struct kestrel_proc_pid_ms __user *arg);
long kestrel_table_memstats(struct kestrel_proc_size_msu __user *arg,
			    bool by_uid);

#endif /* KESTREL_H */
