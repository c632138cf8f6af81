# SPDX-License-Identifier: Apache-2.0
# common.sh: what every guest check shares, sourced by the check-* scripts: the result lines the
# host reads, waiting for a condition, figures from /proc/PID/status, and zram swap.

KESTREL=/usr/bin/kestrel
HELPERS=/vm/helpers

pass() { echo "vmcheck: PASS $1"; }
fail() { echo "vmcheck: FAIL $1: $2"; }
skip() { echo "vmcheck: SKIP $1: $2"; }
log() { echo "vmlog: $*"; }

# wait_for SECONDS COMMAND...: polls COMMAND every 0.1 s until it succeeds; fails on time-out.
wait_for() {
	_tries=$(($1 * 10))
	shift
	while [ "$_tries" -gt 0 ]; do
		"$@" && return 0
		usleep 100000
		_tries=$((_tries - 1))
	done
	return 1
}

# status_kb PID FIELD: a figure of /proc/PID/status (kB for sizes; the real id for Uid).
status_kb() {
	awk -v f="$2:" '$1 == f { print $2; exit }' "/proc/$1/status"
}

# The kernel's page size in bytes, as the mappings of this very awk see it.
page_size() {
	awk '/^KernelPageSize:/ { print $2 * 1024; exit }' /proc/self/smaps
}

# start_hold OUT ARGS...: starts the hold helper with its output in OUT and waits until it holds
# its memory; its pid is left in HOLD_PID.
start_hold() {
	_out=$1
	shift
	"$HELPERS/hold" "$@" >"$_out" 2>&1 &
	HOLD_PID=$!
	wait_for 60 grep -qs '^ready' "$_out"
}

# stop PID...: ends background processes this check started and reaps them. SIGTERM lets the
# hold helper reap its own children first.
stop() {
	kill -TERM "$@" 2>/dev/null
	wait "$@" 2>/dev/null
}

# zram_on MIB: swap on a fresh zram device of MIB MiB. zram_off undoes it.
zram_on() {
	modprobe zram 2>/dev/null || return 1
	echo "$(($1 * 1024 * 1024))" >/sys/block/zram0/disksize || return 1
	mkswap /dev/zram0 >/dev/null 2>&1 || return 1
	swapon /dev/zram0 2>/dev/null
}

zram_off() {
	swapoff /dev/zram0 2>/dev/null
	echo 1 >/sys/block/zram0/reset 2>/dev/null
}

# logger_mark OUT TEXT: writes a record with TEXT and waits until the logger writing OUT shows it,
# so what follows in OUT is newer than the mark.
logger_mark() {
	"$HELPERS/klog" 4 vmcheck "$2" >/dev/null && wait_for 10 grep -q ":$2\$" "$1"
}
