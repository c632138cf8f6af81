// SPDX-License-Identifier: Apache-2.0
// klog: writes one record to the kestrel driver's log, as a program on the device would:
//   klog [-u UID] PRIORITY TAG TEXT
// With -u the device is opened as root and the process then drops to UID (losing every
// capability) before it writes on that same descriptor. Prints its pid (its one thread's id too)
// and the clock just before and just after the write, so a check can rebuild the logger's line.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

static void print_time(const char *label)
{
	struct timespec ts;
	struct tm tm;
	char text[32];

	clock_gettime(CLOCK_REALTIME, &ts);
	localtime_r(&ts.tv_sec, &tm);
	strftime(text, sizeof(text), "%m-%d %H:%M:%S", &tm);
	printf("%s %s.%03ld\n", label, text, ts.tv_nsec / 1000000);
}

// Prints what failed with the error's name (EPERM, ...) for a check to match.
static int fail(const char *what, int err)
{
	printf("%s: %s\n", what, strerrorname_np(err));
	return 1;
}

int main(int argc, char **argv)
{
	long uid = -1;
	char payload[4096];
	int len = 0;

	if (argc == 6 && strcmp(argv[1], "-u") == 0) {
		uid = strtol(argv[2], NULL, 10);
		argv += 2;
		argc -= 2;
	}
	// The record's payload: priority byte, tag, NUL, message, NUL (the one snprintf ends with).
	if (argc == 4)
		len = snprintf(payload, sizeof(payload), "%c%s%c%s", atoi(argv[1]), argv[2], 0, argv[3]) + 1;
	if (len == 0 || len > (int)sizeof(payload)) {
		fprintf(stderr, "usage: klog [-u UID] PRIORITY TAG TEXT (under 4 KiB)\n");
		return 2;
	}

	const int fd = open("/dev/kestrel", O_WRONLY | O_CLOEXEC);
	if (fd < 0)
		return fail("open", errno);
	if (uid >= 0 && (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0))
		return fail("setresuid", errno);
	print_time("before");
	const ssize_t n = write(fd, payload, len);
	const int saved = errno;
	print_time("after");
	if (n < 0)
		return fail("write", saved);
	printf("wrote %zd\npid %d\n", n, (int)getpid());
	return 0;
}
