// SPDX-License-Identifier: Apache-2.0
// klog: writes one record to the kestrel driver's log, as a program on the device would:
//   klog [-u UID] PRIORITY TAG TEXT
// With -u the device is opened as root and the process then drops to UID (losing every
// capability) before it writes on that same descriptor. Prints its pid, its tid and the clock
// just before and just after the write, so a check can rebuild the line the logger prints.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
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

int main(int argc, char **argv)
{
	long uid = -1;
	int opt;

	while ((opt = getopt(argc, argv, "u:")) != -1) {
		if (opt != 'u')
			goto bad;
		uid = strtol(optarg, NULL, 10);
	}
	if (optind != argc - 3)
		goto bad;

	const int fd = open("/dev/kestrel", O_WRONLY | O_CLOEXEC);
	if (fd < 0) {
		printf("open: %s\n", strerror(errno));
		return 1;
	}
	if (uid >= 0 && (setresgid(uid, uid, uid) != 0 || setresuid(uid, uid, uid) != 0)) {
		printf("setresuid: %s\n", strerror(errno));
		return 1;
	}

	// The record's payload: priority byte, tag, NUL, message, NUL.
	const char *tag = argv[optind + 1], *text = argv[optind + 2];
	const size_t tag_len = strlen(tag) + 1, text_len = strlen(text) + 1;
	char *payload = malloc(1 + tag_len + text_len);
	if (payload == NULL)
		return 1;
	payload[0] = (char)atoi(argv[optind]);
	memcpy(payload + 1, tag, tag_len);
	memcpy(payload + 1 + tag_len, text, text_len);

	print_time("before");
	const ssize_t n = write(fd, payload, 1 + tag_len + text_len);
	const int saved = errno;
	print_time("after");
	if (n < 0) {
		printf("write: %s\n", strerrorname_np(saved));
		return 1;
	}
	printf("wrote %zd\npid %d\ntid %ld\n", n, (int)getpid(), (long)syscall(SYS_gettid));
	free(payload);
	close(fd);
	return 0;
bad:
	fprintf(stderr, "usage: klog [-u UID] PRIORITY TAG TEXT\n");
	return 2;
}
