// SPDX-License-Identifier: GPL-2.0
/*
 * The driver's log: one ring of whole records that every open descriptor reads
 * at its own pace. A writer that finds the ring full drops the oldest records;
 * a reader left behind continues from the oldest record still held.
 */
#include <linux/capability.h>
#include <linux/kernel.h>
#include <linux/log2.h>
#include <linux/mm.h>
#include <linux/mutex.h>
#include <linux/sched.h>
#include <linux/sizes.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/timekeeping.h>
#include <linux/uaccess.h>
#include <linux/uio.h>
#include <linux/wait.h>

#include "kestrel.h"

#define HDR_SIZE sizeof(struct kestrel_log_entry)

/*
 * Positions are byte offsets that only grow; (offset & (size - 1)) is the
 * place in buf. A record is its header followed by its payload and may wrap
 * around the end of buf. head <= every reader's pos after clamping <= tail.
 */
static struct {
	/* Protects head, tail, the bytes of buf and every reader's pos. */
	spinlock_t lock;
	wait_queue_head_t wait;	/* readers waiting for tail to move */
	u64 head;		/* oldest record still held */
	u64 tail;		/* where the next record goes */
	size_t size;		/* a power of two */
	u8 *buf;
} ring;

struct kestrel_reader {
	/*
	 * Serialises reads on one descriptor so that a record is handed out
	 * once; it is held across the copy to user space, which may fault.
	 */
	struct mutex lock;
	u64 pos;		/* next record to hand out; under ring.lock */
};

static void ring_copy_out(u64 pos, void *dst, size_t n)
{
	size_t at = pos & (ring.size - 1);
	size_t first = min(n, ring.size - at);

	memcpy(dst, ring.buf + at, first);
	memcpy((u8 *)dst + first, ring.buf, n - first);
}

static void ring_copy_in(u64 pos, const void *src, size_t n)
{
	size_t at = pos & (ring.size - 1);
	size_t first = min(n, ring.size - at);

	memcpy(ring.buf + at, src, first);
	memcpy(ring.buf, (const u8 *)src + first, n - first);
}

static u16 ring_len_at(u64 pos)
{
	struct kestrel_log_entry hdr;

	ring_copy_out(pos, &hdr, HDR_SIZE);
	return hdr.len;
}

/* Appends one record whose payload is already checked; never sleeps. */
static void log_append(const void *payload, size_t len, pid_t pid, pid_t tid)
{
	struct kestrel_log_entry hdr = {
		.len = len,
		.pid = pid,
		.tid = tid,
	};
	struct timespec64 now;
	size_t total = HDR_SIZE + len;

	spin_lock(&ring.lock);
	while (ring.tail + total - ring.head > ring.size)
		ring.head += HDR_SIZE + ring_len_at(ring.head);
	/* Stamped under the lock so that times never go back along the ring. */
	ktime_get_real_ts64(&now);
	hdr.sec = now.tv_sec;
	hdr.nsec = now.tv_nsec;
	ring_copy_in(ring.tail, &hdr, HDR_SIZE);
	ring_copy_in(ring.tail + HDR_SIZE, payload, len);
	ring.tail += total;
	spin_unlock(&ring.lock);

	wake_up_interruptible_poll(&ring.wait, EPOLLIN | EPOLLRDNORM);
}

void kestrel_log_printf(u8 priority, const char *tag, const char *fmt, ...)
{
	char payload[128];
	size_t tag_size = strlen(tag) + 1;
	size_t room;
	va_list args;
	int n;

	if (tag_size + 2 > sizeof(payload))
		return;
	payload[0] = priority;
	memcpy(payload + 1, tag, tag_size);
	room = sizeof(payload) - 1 - tag_size;
	va_start(args, fmt);
	n = vscnprintf(payload + 1 + tag_size, room, fmt, args);
	va_end(args);
	log_append(payload, 1 + tag_size + n + 1, task_tgid_nr(current),
		   task_pid_nr(current));
}

ssize_t kestrel_log_write_iter(struct iov_iter *from)
{
	size_t len = iov_iter_count(from);
	const char *tag, *tag_end;
	ssize_t ret = len;
	u8 *payload;

	if (len < KESTREL_LOG_MIN_PAYLOAD || len > KESTREL_LOG_MAX_PAYLOAD)
		return -EINVAL;
	payload = kmalloc(len, GFP_KERNEL);
	if (!payload)
		return -ENOMEM;
	if (!copy_from_iter_full(payload, len, from)) {
		ret = -EFAULT;
		goto out;
	}
	/* The tag's NUL must leave room for at least the message's NUL. */
	tag = payload + 1;
	tag_end = memchr(tag, '\0', len - 2);
	if (!tag_end) {
		ret = -EINVAL;
		goto out;
	}
	/* The aging daemon runs these messages as root: only root may send. */
	if (tag_end - tag == 3 && !memcmp(tag, "cmd", 3) &&
	    !capable(CAP_SYS_ADMIN)) {
		ret = -EPERM;
		goto out;
	}
	log_append(payload, len, task_tgid_nr(current), task_pid_nr(current));
out:
	kfree(payload);
	return ret;
}

static bool reader_has_record(struct kestrel_reader *reader)
{
	bool ready;

	spin_lock(&ring.lock);
	ready = reader->pos != ring.tail;
	spin_unlock(&ring.lock);
	return ready;
}

ssize_t kestrel_log_read(struct kestrel_reader *reader, char __user *buf,
			 size_t count, bool nonblock)
{
	size_t total;
	ssize_t ret;
	u8 *record;
	u64 at;

	record = kmalloc(KESTREL_LOG_MAX_RECORD, GFP_KERNEL);
	if (!record)
		return -ENOMEM;
	if (mutex_lock_interruptible(&reader->lock)) {
		ret = -ERESTARTSYS;
		goto out_free;
	}
	for (;;) {
		spin_lock(&ring.lock);
		if (reader->pos < ring.head)
			reader->pos = ring.head;
		at = reader->pos;
		if (at != ring.tail)
			break;
		spin_unlock(&ring.lock);
		if (nonblock) {
			ret = -EAGAIN;
			goto out_unlock;
		}
		ret = wait_event_interruptible(ring.wait,
					       reader_has_record(reader));
		if (ret)
			goto out_unlock;
	}
	total = HDR_SIZE + ring_len_at(at);
	if (count < total) {
		spin_unlock(&ring.lock);
		ret = -EINVAL;
		goto out_unlock;
	}
	ring_copy_out(at, record, total);
	spin_unlock(&ring.lock);

	if (copy_to_user(buf, record, total)) {
		ret = -EFAULT;
		goto out_unlock;
	}
	/* Overrun meanwhile? The next read clamps pos to head again. */
	spin_lock(&ring.lock);
	reader->pos = at + total;
	spin_unlock(&ring.lock);
	ret = total;
out_unlock:
	mutex_unlock(&reader->lock);
out_free:
	kfree(record);
	return ret;
}

__poll_t kestrel_log_poll(struct kestrel_reader *reader, struct file *file,
			  poll_table *wait)
{
	__poll_t mask = EPOLLOUT | EPOLLWRNORM;

	poll_wait(file, &ring.wait, wait);
	if (reader_has_record(reader))
		mask |= EPOLLIN | EPOLLRDNORM;
	return mask;
}

struct kestrel_reader *kestrel_reader_new(void)
{
	struct kestrel_reader *reader = kzalloc(sizeof(*reader), GFP_KERNEL);

	if (!reader)
		return NULL;
	mutex_init(&reader->lock);
	/* A new reader starts at the oldest record still held. */
	spin_lock(&ring.lock);
	reader->pos = ring.head;
	spin_unlock(&ring.lock);
	return reader;
}

void kestrel_reader_free(struct kestrel_reader *reader)
{
	if (!reader)
		return;
	mutex_destroy(&reader->lock);
	kfree(reader);
}

int kestrel_log_init(size_t size)
{
	/* Room for two of the largest records at least. */
	if (size < 2 * KESTREL_LOG_MAX_RECORD || size > SZ_64M)
		return -EINVAL;
	size = roundup_pow_of_two(size);
	ring.buf = kvzalloc(size, GFP_KERNEL);
	if (!ring.buf)
		return -ENOMEM;
	ring.size = size;
	ring.head = 0;
	ring.tail = 0;
	spin_lock_init(&ring.lock);
	init_waitqueue_head(&ring.wait);
	return 0;
}

void kestrel_log_exit(void)
{
	kvfree(ring.buf);
	ring.buf = NULL;
}
