// SPDX-License-Identifier: Apache-2.0
// A process for the compaction tests to work on:  compact_child PAGES DIR
// It maps a PAGES-page file in DIR and reads every page, prints "ready <pid>" and holds them until
// killed or its parent dies. The file's page cache is dropped first, so that its pages are clean
// and mapped by this process only.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <string>

volatile char g_sink;

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t pages = strtoul(argv[1], nullptr, 10);
  const std::string path = std::string(argv[2]) + "/compact_child." + std::to_string(getpid());
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  unlink(path.c_str());
  const std::string data(pages * page, 'k');  // no zero page
  if (fd < 0 || write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size()) ||
      fsync(fd) != 0) {
    return perror(path.c_str()), 2;
  }
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  const char* area = static_cast<const char*>(
      mmap(nullptr, data.size(), PROT_READ, MAP_PRIVATE, fd, 0));
  if (area == MAP_FAILED) return perror("mmap"), 2;
  for (size_t at = 0; at < data.size(); at += page) g_sink = area[at];
  printf("ready %d\n", getpid());
  fflush(stdout);
  for (;;) pause();
}
