// SPDX-License-Identifier: Apache-2.0
// hold: holds a known amount of touched anonymous memory and then idles, so the guest checks can
// compare kestrel's figures and compaction with what the kernel reports for a process at rest.
//   hold [-u UID] [-c CHILDREN] [-g GAP_MIB] [-l] MIB
// -u runs it (and its children) as UID; -c starts CHILDREN idle children that die with it; -g
// leaves GAP_MIB untouched in front of the touched MIB in one mapping; -l locks one page in the
// middle of the touched memory.
#define _GNU_SOURCE
#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

static volatile sig_atomic_t stopping;

static void on_term(int sig)
{
	(void)sig;
	stopping = 1;
}

int main(int argc, char **argv)
{
	long uid = -1, children = 0, gap_mib = 0;
	int lock = 0, opt;

	while ((opt = getopt(argc, argv, "u:c:g:l")) != -1) {
		switch (opt) {
		case 'u': uid = strtol(optarg, NULL, 10); break;
		case 'c': children = strtol(optarg, NULL, 10); break;
		case 'g': gap_mib = strtol(optarg, NULL, 10); break;
		case 'l': lock = 1; break;
		default: return 2; // getopt has said why
		}
	}
	if (optind != argc - 1)
		return 2;
	const size_t mib = strtoul(argv[optind], NULL, 10);
	const size_t page = (size_t)sysconf(_SC_PAGESIZE);
	const size_t gap = (size_t)gap_mib << 20, len = mib << 20;

	// MAP_NORESERVE: a gap of gigabytes stays untouched and must not need commit charge. A hold
	// of 0 MiB maps nothing: the benchmark starts hundreds of idle processes with it.
	char *map = NULL;
	if (gap + len)
		map = mmap(NULL, gap + len, PROT_READ | PROT_WRITE,
			   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
	if (map == MAP_FAILED) {
		perror("mmap");
		return 1;
	}
	// Distinct words in every page, so no page is zero or shared with another.
	for (size_t off = 0; off < len; off += sizeof(uint64_t))
		*(uint64_t *)(map + gap + off) = off * 0x9e3779b97f4a7c15ull;
	// A locked page splits the mapping in three, and the kernel refuses to page it out.
	if (lock && mlock(map + gap + (len / 2 & ~(page - 1)), page) != 0) {
		perror("mlock");
		return 1;
	}
	if (uid >= 0 && (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0)) {
		perror("setresuid");
		return 1;
	}
	// SIGTERM ends the parent only after it has reaped every child, so no zombie outlives a
	// check; SIGKILL still takes the children along through their death signal.
	signal(SIGTERM, on_term);
	pid_t *kids = calloc((size_t)children + 1, sizeof(*kids));
	for (long i = 0; i < children; i++) {
		kids[i] = fork();
		if (kids[i] < 0) {
			perror("fork"); // the children started so far die with this process
			return 1;
		}
		if (kids[i] == 0) {
			prctl(PR_SET_PDEATHSIG, SIGKILL);
			for (;;)
				pause();
		}
	}
	printf("ready %d\n", (int)getpid());
	fflush(stdout);
	while (!stopping)
		pause();
	for (long i = 0; i < children; i++)
		kill(kids[i], SIGKILL);
	for (long i = 0; i < children; i++)
		waitpid(kids[i], NULL, 0);
	free(kids);
	return 0;
}
