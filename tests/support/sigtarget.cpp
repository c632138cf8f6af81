// SPDX-License-Identifier: Apache-2.0
// A stand-in for a process with an allocator hook: it takes the hook's real-time signal and
// writes "value=<n>" for each request (a digit, else "?"), prints "ready" once the handler is
// in place and exits with status 0 when its standard input reaches end of file.
#include <signal.h>
#include <unistd.h>

static void on_request(int, siginfo_t* info, void*) {
  char line[] = "value=?\n";
  unsigned value = static_cast<unsigned>(info->si_value.sival_int);
  if (info->si_code == SI_QUEUE && value <= 9) line[6] = static_cast<char>('0' + value);
  if (write(STDOUT_FILENO, line, sizeof(line) - 1) < 0) _exit(4);
}

int main() {
  struct sigaction sa = {};
  sa.sa_sigaction = on_request;
  sa.sa_flags = SA_SIGINFO | SA_RESTART;  // the read below goes on after each request
  if (sigaction(SIGRTMAX - 19, &sa, nullptr) != 0) return 2;
  if (write(STDOUT_FILENO, "ready\n", 6) != 6) return 2;
  char buf[64];
  while (read(STDIN_FILENO, buf, sizeof(buf)) > 0) continue;
  return 0;
}
