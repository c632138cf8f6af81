// A stand-in for a process with an allocator hook: it takes the hook's real-time signal with an
// SA_SIGINFO handler and writes one line per request it receives to standard output
// ("value=<n>", or "unqueued" for a signal sent without a value). It prints "ready" once the
// handler is in place and exits with status 0 when its standard input reaches end of file.
// The tests start it with the program name they want to see in its command line.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

namespace {

void write_all(const char* text, size_t len) {
  while (len > 0) {
    ssize_t n = write(STDOUT_FILENO, text, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    len -= static_cast<size_t>(n);
  }
}

// Only async-signal-safe calls here. Requests are single digits; anything else shows as "?".
void on_request(int, siginfo_t* info, void*) {
  int saved_errno = errno;
  if (info->si_code != SI_QUEUE) {
    write_all("unqueued\n", 9);
  } else {
    char line[] = "value=?\n";
    int value = info->si_value.sival_int;
    if (value >= 0 && value <= 9) line[6] = static_cast<char>('0' + value);
    write_all(line, sizeof(line) - 1);
  }
  errno = saved_errno;
}

}  // namespace

int main() {
  struct sigaction sa = {};
  sa.sa_sigaction = on_request;
  sa.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&sa.sa_mask);
  if (sigaction(SIGRTMAX - 19, &sa, nullptr) != 0) return 2;

  write_all("ready\n", 6);
  char buf[64];
  for (;;) {
    ssize_t n = read(STDIN_FILENO, buf, sizeof(buf));
    if (n == 0) return 0;
    if (n < 0 && errno != EINTR) return 3;
  }
}
