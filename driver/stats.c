// SPDX-License-Identifier: GPL-2.0
/*
 * Per-process memory figures: one process by pid, or a walk of every process
 * of the caller's pid namespace in ascending pid order, optionally only those
 * of one real uid. Figures come from the same counters /proc/<pid>/status
 * reads, converted to 4 KiB units.
 */
#include <linux/bitmap.h>
#include <linux/cred.h>
#include <linux/fdtable.h>
#include <linux/idr.h>
#include <linux/mm.h>
#include <linux/oom.h>
#include <linux/pid.h>
#include <linux/pid_namespace.h>
#include <linux/rcupdate.h>
#include <linux/sched.h>
#include <linux/sched/mm.h>
#include <linux/sched/signal.h>
#include <linux/sched/task.h>
#include <linux/uaccess.h>
#include <linux/uidgid.h>
#include <linux/version.h>

#include "kestrel.h"

/* Pages of PAGE_SIZE to 4 KiB units, saturating at U32_MAX. */
static u32 pages_to_units(unsigned long pages)
{
	const unsigned int shift = PAGE_SHIFT - 12;

	if (pages > (U32_MAX >> shift))
		return U32_MAX;
	return pages << shift;
}

/*
 * A resident-memory counter as /proc/PID/status shows it. Since 6.2 the
 * counters are per-CPU: the quick read lags by up to a batch per CPU, so take
 * the exact sum.
 */
static unsigned long rss_counter(struct mm_struct *mm, int member)
{
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 2, 0)
	return percpu_counter_sum_positive(&mm->rss_stat[member]);
#else
	return get_mm_counter(mm, member);
#endif
}

/* Open descriptors: the bits set in the table's open map. */
static s32 count_fds(struct task_struct *task)
{
	struct files_struct *files;
	unsigned long n = 0;

	/* task_lock keeps task->files alive; RCU keeps its table alive. */
	task_lock(task);
	files = task->files;
	if (files) {
		struct fdtable *fdt;

		rcu_read_lock();
		fdt = files_fdtable(files);
		n = bitmap_weight(fdt->open_fds, fdt->max_fds);
		rcu_read_unlock();
	}
	task_unlock(task);
	return min_t(unsigned long, n, S32_MAX);
}

static u8 task_is_compat(struct task_struct *task)
{
#if defined(CONFIG_ARM64) && defined(CONFIG_COMPAT)
	return test_tsk_thread_flag(task, TIF_32BIT);
#elif defined(CONFIG_X86_64) && defined(CONFIG_IA32_EMULATION)
	return test_tsk_thread_flag(task, TIF_ADDR32);
#else
	return 0;
#endif
}

#define KESTREL_STAT_MM (KESTREL_STAT_VSS | KESTREL_STAT_ANON | \
			 KESTREL_STAT_FILE | KESTREL_STAT_SHMEM | \
			 KESTREL_STAT_SWAP)

/* The address-space figures; a kernel thread has none and keeps zeros. */
static void fill_mm_figures(struct task_struct *task, u32 flags,
			    struct kestrel_proc_ms *ms)
{
	struct mm_struct *mm = get_task_mm(task);

	if (!mm)
		return;
	if (flags & KESTREL_STAT_VSS)
		ms->vss = pages_to_units(READ_ONCE(mm->total_vm));
	if (flags & KESTREL_STAT_ANON)
		ms->anon = pages_to_units(rss_counter(mm, MM_ANONPAGES));
	if (flags & KESTREL_STAT_FILE)
		ms->file = pages_to_units(rss_counter(mm, MM_FILEPAGES));
	if (flags & KESTREL_STAT_SHMEM)
		ms->shmem = pages_to_units(rss_counter(mm, MM_SHMEMPAGES));
	if (flags & KESTREL_STAT_SWAP)
		ms->swap = pages_to_units(rss_counter(mm, MM_SWAPENTS));
	mmput(mm);
}

/*
 * Fills ms for a thread-group leader the caller holds a reference on. May
 * sleep (mmput); takes no lock across anything that does.
 */
static void fill_proc_ms(struct task_struct *task, pid_t nr, u32 flags,
			 struct pid_namespace *ns, struct kestrel_proc_ms *ms)
{
	memset(ms, 0, sizeof(*ms));
	ms->pid = nr;

	if (flags & KESTREL_STAT_UID)
		ms->uid = from_kuid_munged(current_user_ns(), task_uid(task));
	if (flags & KESTREL_STAT_PPID) {
		rcu_read_lock();
		if (pid_alive(task))
			ms->ppid = task_tgid_nr_ns(rcu_dereference(task->real_parent),
						   ns);
		rcu_read_unlock();
	}
	if (flags & KESTREL_STAT_OOM)
		ms->oom_score_adj = READ_ONCE(task->signal->oom_score_adj);
	if (flags & KESTREL_STAT_32)
		ms->compat32 = task_is_compat(task);
	if (flags & KESTREL_STAT_COMM)
		get_task_comm(ms->comm, task);
	if (flags & KESTREL_STAT_FDS)
		ms->fds = count_fds(task);

	if (flags & KESTREL_STAT_MM)
		fill_mm_figures(task, flags, ms);
	/*
	 * pss and the heaps come from the tool's smaps walk; ashmem, dma-buf
	 * and gpu have no per-process counter in a mainline kernel. All stay 0.
	 */
}

long kestrel_pid_memstat(struct kestrel_proc_pid_ms __user *arg)
{
	struct kestrel_proc_pid_ms req;
	struct task_struct *task;
	struct pid *pid;

	if (copy_from_user(&req, arg, offsetof(struct kestrel_proc_pid_ms, ms)))
		return -EFAULT;
	if (!(req.flags & KESTREL_STAT_ALL))
		return -EINVAL;

	pid = find_get_pid(req.pid);
	task = get_pid_task(pid, PIDTYPE_TGID);
	put_pid(pid);
	if (!task)
		return -ESRCH;
	fill_proc_ms(task, req.pid, req.flags, task_active_pid_ns(current),
		     &req.ms);
	put_task_struct(task);

	if (copy_to_user(&arg->ms, &req.ms, sizeof(req.ms)))
		return -EFAULT;
	return 0;
}

/*
 * The next thread-group leader at or after *nr in ns, with a reference held,
 * or NULL at the end. Safe against processes exiting: the pid map is walked
 * under RCU and the task pinned before the lock is left.
 */
static struct task_struct *next_leader(struct pid_namespace *ns, int *nr)
{
	struct task_struct *task = NULL;
	struct pid *pid;

	rcu_read_lock();
	while (!task) {
		pid = idr_get_next(&ns->idr, nr);
		if (!pid)
			break;
		task = pid_task(pid, PIDTYPE_TGID);
		if (task)
			get_task_struct(task);
		else
			(*nr)++;
	}
	rcu_read_unlock();
	return task;
}

long kestrel_table_memstats(struct kestrel_proc_size_msu __user *arg,
			    bool by_uid)
{
	struct pid_namespace *ns = task_active_pid_ns(current);
	struct kestrel_proc_size_msu req;
	struct kestrel_proc_ms ms;
	struct task_struct *task;
	kuid_t uid = INVALID_UID;
	u32 filled = 0;
	int nr = 1;
	long ret = 0;

	if (copy_from_user(&req, arg, sizeof(req)))
		return -EFAULT;
	if (!(req.flags & KESTREL_STAT_ALL))
		return -EINVAL;
	if (req.count < 1 || req.count > KESTREL_MAX_COUNT)
		return -EINVAL;
	/* A uid with no mapping here matches no process. */
	if (by_uid)
		uid = make_kuid(current_user_ns(), req.uid);

	while (filled < req.count && (task = next_leader(ns, &nr))) {
		if (!by_uid || uid_eq(task_uid(task), uid)) {
			fill_proc_ms(task, nr, req.flags, ns, &ms);
			if (copy_to_user(&arg->ms[filled], &ms, sizeof(ms)))
				ret = -EFAULT;
			else
				filled++;
		}
		put_task_struct(task);
		if (ret)
			return ret;
		if (fatal_signal_pending(current))
			return -EINTR;
		cond_resched();
		nr++;
	}

	if (put_user(filled, &arg->count))
		return -EFAULT;
	return 0;
}
