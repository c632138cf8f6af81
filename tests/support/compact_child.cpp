// A process for the compaction tests to work on: it maps and touches the memory it is asked for,
// prints "ready" and then holds everything until its standard input is closed.
//
//   compact_child [--anon-mib N] [--file-mib N] [--file-pages N] [--dir DIR]
//
// --anon-mib   private anonymous memory, every page written
// --file-mib   a file of that size in DIR, mapped private and read page by page; its page cache
//              is dropped first so that the pages are clean and mapped by this process only
// --file-pages that many one-page mappings of a file in DIR, kept apart by unmapped gaps so
//              that each is a mapping of its own
// The files are unlinked once mapped.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));
constexpr size_t kMiB = 1024 * 1024;

[[noreturn]] void fail(const char* what) {
  fprintf(stderr, "compact_child: %s: %s\n", what, strerror(errno));
  exit(2);
}

// Creates a file of `size` bytes that holds no zero page, written through to disk and dropped
// from the page cache, and opens it for reading. The file is unlinked at once.
int make_file(const std::string& dir, const char* name, size_t size) {
  const std::string path = dir + "/" + name + "." + std::to_string(getpid());
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) fail(path.c_str());
  unlink(path.c_str());
  std::vector<char> chunk(kMiB, 'k');
  for (size_t done = 0; done < size; done += chunk.size()) {
    const size_t n = std::min(chunk.size(), size - done);
    if (write(fd, chunk.data(), n) != static_cast<ssize_t>(n)) fail("write");
  }
  if (fsync(fd) != 0) fail("fsync");
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  return fd;
}

volatile char g_sink;

}  // namespace

int main(int argc, char** argv) {
  size_t anon_mib = 0, file_mib = 0, file_pages = 0;
  std::string dir = ".";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string opt = argv[i];
    const char* value = argv[i + 1];
    if (opt == "--anon-mib") {
      anon_mib = strtoul(value, nullptr, 10);
    } else if (opt == "--file-mib") {
      file_mib = strtoul(value, nullptr, 10);
    } else if (opt == "--file-pages") {
      file_pages = strtoul(value, nullptr, 10);
    } else if (opt == "--dir") {
      dir = value;
    } else {
      fprintf(stderr, "compact_child: unknown option %s\n", argv[i]);
      return 2;
    }
  }

  if (anon_mib > 0) {
    const size_t size = anon_mib * kMiB;
    void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) fail("mmap anon");
    memset(p, 'a', size);
  }

  if (file_mib > 0) {
    const size_t size = file_mib * kMiB;
    const int fd = make_file(dir, "compact_child_data", size);
    void* p = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
    if (p == MAP_FAILED) fail("mmap file");
    close(fd);
    const char* bytes = static_cast<const char*>(p);
    for (size_t off = 0; off < size; off += kPage) g_sink = bytes[off];
  }

  if (file_pages > 0) {
    const int fd = make_file(dir, "compact_child_pages", kPage);
    char* area = static_cast<char*>(
        mmap(nullptr, 2 * file_pages * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (area == MAP_FAILED) fail("mmap area");
    for (size_t i = 0; i < file_pages; i++) {
      char* at = area + 2 * i * kPage;
      if (mmap(at, kPage, PROT_READ, MAP_PRIVATE | MAP_FIXED, fd, 0) == MAP_FAILED) {
        fail("mmap page");
      }
      g_sink = *at;
    }
    close(fd);
  }

  printf("ready\n");
  fflush(stdout);
  char c;
  while (read(STDIN_FILENO, &c, 1) > 0) {
  }
  return 0;
}
