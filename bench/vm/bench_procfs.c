// SPDX-License-Identifier: Apache-2.0
// bench_procfs: the baseline of the meminfo benchmark. It gathers from procfs, for every
// process, the figures that one driver request returns for all of them (`status` for the ids and
// sizes, `oom_score_adj`, the entries of `fd/`), and prints the best time of ROUNDS walks:
//   bench_procfs ROUNDS   ->   "procfs <processes> <milliseconds>"
#define _GNU_SOURCE
#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

struct figures {
	char comm[16];
	long uid, ppid, oom, fds;
	unsigned long vss, anon, file, shmem, swap;
};

static unsigned long sink;

static ssize_t read_small(int dir, const char *name, char *buf, size_t size)
{
	const int fd = openat(dir, name, O_RDONLY | O_CLOEXEC);
	if (fd < 0)
		return -1;
	const ssize_t n = read(fd, buf, size - 1);
	close(fd);
	if (n >= 0)
		buf[n] = '\0';
	return n;
}

static unsigned long field(const char *status, const char *key)
{
	const char *at = strstr(status, key);
	return at ? strtoul(at + strlen(key), NULL, 10) : 0;
}

static int read_process(int proc, const char *pid, struct figures *f)
{
	char buf[4096];
	const int dir = openat(proc, pid, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (dir < 0)
		return -1;
	memset(f, 0, sizeof(*f));
	if (read_small(dir, "status", buf, sizeof(buf)) > 0) {
		const char *name = strstr(buf, "Name:\t");
		if (name)
			sscanf(name + 6, "%15[^\n]", f->comm);
		f->uid = (long)field(buf, "\nUid:\t");
		f->ppid = (long)field(buf, "\nPPid:\t");
		f->vss = field(buf, "\nVmSize:");
		f->anon = field(buf, "\nRssAnon:");
		f->file = field(buf, "\nRssFile:");
		f->shmem = field(buf, "\nRssShmem:");
		f->swap = field(buf, "\nVmSwap:");
	}
	if (read_small(dir, "oom_score_adj", buf, sizeof(buf)) > 0)
		f->oom = strtol(buf, NULL, 10);
	const int fd_dir = openat(dir, "fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
	if (fd_dir >= 0) {
		DIR *fds = fdopendir(fd_dir);
		if (fds) {
			for (struct dirent *e; (e = readdir(fds)) != NULL;)
				f->fds += e->d_name[0] != '.';
			closedir(fds);
		} else {
			close(fd_dir);
		}
	}
	close(dir);
	return 0;
}

// One walk over /proc; returns the number of processes read.
static int walk(void)
{
	DIR *proc = opendir("/proc");
	struct figures f;
	int count = 0;

	if (proc == NULL)
		return -1;
	for (struct dirent *e; (e = readdir(proc)) != NULL;) {
		if (e->d_name[0] < '0' || e->d_name[0] > '9')
			continue;
		if (read_process(dirfd(proc), e->d_name, &f) == 0) {
			sink += f.vss + f.anon + (unsigned long)f.fds;
			count++;
		}
	}
	closedir(proc);
	return count;
}

int main(int argc, char **argv)
{
	const int rounds = argc > 1 ? atoi(argv[1]) : 5;
	double best = -1;
	int count = 0;

	for (int i = 0; i < rounds; i++) {
		struct timespec a, b;
		clock_gettime(CLOCK_MONOTONIC, &a);
		count = walk();
		clock_gettime(CLOCK_MONOTONIC, &b);
		const double ms = (double)(b.tv_sec - a.tv_sec) * 1e3 + (double)(b.tv_nsec - a.tv_nsec) / 1e6;
		if (best < 0 || ms < best)
			best = ms;
	}
	printf("procfs %d %.3f\n", count, best);
	return count > 0 ? 0 : 1;
}
