// SPDX-License-Identifier: GPL-2.0
/*
 * kestrel: the device /dev/kestrel. It answers the tool's requests (version,
 * scenes, per-process memory figures) and carries a log that user space
 * writes and reads one record at a time.
 */
#include <linux/bitops.h>
#include <linux/compat.h>
#include <linux/fs.h>
#include <linux/miscdevice.h>
#include <linux/module.h>
#include <linux/moduleparam.h>
#include <linux/sizes.h>
#include <linux/uaccess.h>

#include "kestrel.h"

static unsigned int log_size = SZ_256K;
module_param(log_size, uint, 0444);
MODULE_PARM_DESC(log_size,
		 "log bytes held, rounded up to a power of 2 (default 256 KiB)");

/* The scenes that are set; changed with atomic bit operations only. */
static unsigned long scenes;

static int kestrel_open(struct inode *inode, struct file *file)
{
	struct kestrel_reader *reader = kestrel_reader_new();

	if (!reader)
		return -ENOMEM;
	file->private_data = reader;
	return stream_open(inode, file);
}

static int kestrel_release(struct inode *inode, struct file *file)
{
	kestrel_reader_free(file->private_data);
	return 0;
}

static ssize_t kestrel_read(struct file *file, char __user *buf, size_t count,
			    loff_t *ppos)
{
	return kestrel_log_read(file->private_data, buf, count,
				file->f_flags & O_NONBLOCK);
}

static ssize_t kestrel_write_iter(struct kiocb *iocb, struct iov_iter *from)
{
	return kestrel_log_write_iter(from);
}

static __poll_t kestrel_poll(struct file *file, poll_table *wait)
{
	return kestrel_log_poll(file->private_data, file, wait);
}

static long kestrel_scene(struct kestrel_scene __user *arg, bool set)
{
	struct kestrel_scene req;
	bool was_set;

	if (copy_from_user(&req, arg, sizeof(req)))
		return -EFAULT;
	if (req.reserved0 || req.reserved1 || req.scene >= KESTREL_SCENES)
		return -EINVAL;

	if (set)
		was_set = test_and_set_bit(req.scene, &scenes);
	else
		was_set = test_and_clear_bit(req.scene, &scenes);
	if (was_set != set)
		kestrel_log_printf(4, KESTREL_TAG, "scene %llu %s",
				   (unsigned long long)req.scene,
				   set ? "set" : "cleared");
	return 0;
}

static long kestrel_ioctl(struct file *file, unsigned int cmd,
			  unsigned long arg)
{
	void __user *uarg = (void __user *)arg;

	switch (cmd) {
	case KESTREL_IOC_GET_VERSION:
		return (KESTREL_VERSION_MAJOR << 16) | KESTREL_VERSION_MINOR;
	case KESTREL_IOC_SET_SCENE:
		return kestrel_scene(uarg, true);
	case KESTREL_IOC_CLEAR_SCENE:
		return kestrel_scene(uarg, false);
	case KESTREL_IOC_PID_MEMSTAT:
		return kestrel_pid_memstat(uarg);
	case KESTREL_IOC_SIZE_MEMSTATS:
		return kestrel_table_memstats(uarg, false);
	case KESTREL_IOC_UID_MEMSTATS:
		return kestrel_table_memstats(uarg, true);
	default:
		return -ENOTTY;
	}
}

static const struct file_operations kestrel_fops = {
	.owner		= THIS_MODULE,
	.open		= kestrel_open,
	.release	= kestrel_release,
	.read		= kestrel_read,
	.write_iter	= kestrel_write_iter,
	.poll		= kestrel_poll,
	.unlocked_ioctl	= kestrel_ioctl,
	/* Every record has the same layout for 32-bit callers. */
	.compat_ioctl	= compat_ptr_ioctl,
};

/* Root only: the figures cover every process and "cmd" records run as root. */
static struct miscdevice kestrel_dev = {
	.minor	= MISC_DYNAMIC_MINOR,
	.name	= "kestrel",
	.fops	= &kestrel_fops,
	.mode	= 0600,
};

static int __init kestrel_init(void)
{
	int ret;

	ret = kestrel_log_init(log_size);
	if (ret) {
		pr_err("kestrel: log_size %u not usable (%d)\n", log_size, ret);
		return ret;
	}
	ret = misc_register(&kestrel_dev);
	if (ret) {
		kestrel_log_exit();
		return ret;
	}
	return 0;
}

static void __exit kestrel_exit(void)
{
	misc_deregister(&kestrel_dev);
	kestrel_log_exit();
}

module_init(kestrel_init);
module_exit(kestrel_exit);

MODULE_DESCRIPTION("kestrel memory debugging: process figures and a log");
MODULE_AUTHOR("The kestrel developers");
MODULE_LICENSE("GPL");
MODULE_VERSION("1.0");
