// SPDX-License-Identifier: Apache-2.0
// What a hostile caller or a hostile neighbour can set up around the shipped binary: a parent
// that leaks descriptors, links and FIFOs planted in world-writable folders, files far larger
// than any real one, and a standard output that cannot be written. Each surface is
// one table; every case ends with a clear error or the correct result.
#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"
#include "tests/support/elf_image.h"

namespace kestrel_e2e {
namespace {

struct Case {
  const char* name;
  std::vector<std::string> args;
  std::string scenario;
  std::string out, err;
  int status;
};

void expect_result(const Case& c, const Result& r) {
  EXPECT_EQ(std::make_tuple(r.out, r.err, r.status, r.timed_out),
            std::make_tuple(c.out, c.err, c.status, false));
}

// bash runs `prelude`, then execs kestrel with the case's arguments: it can leave descriptors
// open or point standard output somewhere else first. Each case runs that way.
void expect_via_bash(const std::string& prelude, const std::vector<Case>& cases) {
  // A host bash under qemu-user complains about the preloaded arm64 simulator before it execs.
  if (!run_program({"/bin/bash", "-c", ":"}).err.empty()) {
    GTEST_SKIP() << "bash cannot preload the simulator here (a host bash under qemu-user)";
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> argv = {"/bin/bash", "-c", prelude + "; exec \"$@\"", "launcher",
                                     kestrel_binary()};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    expect_result(c, run_program(argv, {.scenario = c.scenario}));
  }
}

// With descriptors 3 to 1102 left open, the driver's descriptor is above what an fd_set holds.
// Every command follows the driver's log through one loop: logger stands for them all.
TEST(Hostile, DriverDescriptorAbove1024IsWaitedOnLikeAnyOther) {
  struct rlimit files = {};
  if (getrlimit(RLIMIT_NOFILE, &files) != 0 || files.rlim_max < 4096) {
    GTEST_SKIP() << "fewer than 4096 descriptors allowed here";
  }
  expect_via_bash(
      "ulimit -n 4096; for ((i = 3; i <= 1102; i++)); do eval \"exec $i</dev/null\"; done",
      {{"logger", {"logger"},
        "log pid=1 tid=1 prio=4 sec=97445 nsec=6000000 tag=kestrel msg=up\nat-end eof\n",
        "01-02 03:04:05.006     1     1 I kestrel :up\n", "fatal: read: Unexpected EOF!\n\n", 129}});
}

// Every command ends through one check of standard output, whatever its own status; the driver
// log's printer keeps its one unreported write, so logger goes on to the end of the stream.
TEST(Hostile, StandardOutputThatCannotBeWrittenEndsWithAFatalError) {
  const std::string full = "fatal: write failure on standard output: No space left on device\n";
  expect_via_bash("exec >/dev/full",
                  {{"no command", {}, "", "", full, 129},
                   {"logger", {"logger"},
                    "log pid=1 tid=1 prio=4 sec=0 nsec=0 tag=kestrel msg=lost\nat-end eof\n", "",
                    "fatal: read: Unexpected EOF!\n\n", 129}});
}

// A sandbox in which the aging daemon can start: the driver's stream ends after one record.
const std::string kDaemon = "/data/tarvo/heapdump/kestrel";
Result run_daemon(Sandbox& box, const std::function<void()>& plant) {
  box.write_file("/proc/meminfo", "MemTotal: 1 kB\n");
  box.make_dir(kDaemon, 0777);
  box.make_dir("/root-only", 0700);
  plant();
  return box.run({"aging"}, {.scenario = "log pid=1 tid=1 prio=4 sec=0 nsec=0 tag=kestrel msg=up\nat-end eof\n"});
}

// The daemon's folders are world-writable: a link planted there must not take its 0777 folders
// and 0666 files into a folder of root's, and a FIFO without a reader must not hang its start.
// Each is refused with the start-up's own failure text, and nothing appears where a link points.
// Its folders are made by one function, its logs opened by another: one of each is planted.
// A report meets the log's opener too, but is skipped with an error line and the daemon goes on.
TEST(Hostile, LinksAndFifosPlantedInTheDaemonsTreeAreRefused) {
  KESTREL_REQUIRE_SANDBOX();
  const std::string folder = "fatal: aging: create folder failed, reason: ";
  const std::string file = "fatal: aging: create file failed, reason: ";
  const struct {
    std::string path;
    bool fifo;
    std::string err;
  } cases[] = {
      {kDaemon, false, folder + "Not a directory\n"},
      {kDaemon + "/memleak", false, folder + "Not a directory\n"},
      {kDaemon + "/log.txt", false, file + "Too many levels of symbolic links\n"},
      {kDaemon + "/log.txt", true, file + "No such device or address\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + (c.fifo ? " (FIFO)" : ""));
    Sandbox box;
    expect_result({"", {}, "", "", c.err, 129}, run_daemon(box, [&] {
                    if (c.path == kDaemon) rmdir(box.host_path(kDaemon).c_str());
                    if (c.fifo) {
                      ASSERT_EQ(mkfifo(box.host_path(c.path).c_str(), 0666), 0);
                    } else {
                      box.make_symlink("/root-only", c.path);
                    }
                  }));
    EXPECT_TRUE(std::filesystem::is_empty(box.host_path("/root-only")));
  }
  Sandbox box;
  expect_result({"", {}, "", "", "fatal: read: Unexpected EOF!\n\n", 129}, run_daemon(box, [&] {
                  box.make_dir(kDaemon + "/dmabuf", 0777);
                  // Report names carry the time: FIFOs for the next minute's.
                  for (time_t t = time(nullptr), end = t + 60; t < end; t++) {
                    char name[64];
                    strftime(name, sizeof(name), "/dmabuf/dmabuf_%m-%d-%H-%M-%S.txt", gmtime(&t));
                    ASSERT_EQ(mkfifo(box.host_path(kDaemon + name).c_str(), 0666), 0);
                  }
                }));
  static const std::regex kRefused(R"(\n[0-9: -]+ E kestrel-aging: dump_dmabuf_usage create file dmabuf_[0-9-]+\.txt failed\n)");
  const std::string log = box.read_file(kDaemon + "/log.txt");
  EXPECT_TRUE(std::regex_search(log, kRefused)) << log;
}

// Sparse files: a 64 GiB section in an ELF file and a 4 GiB configuration cost no disk space,
// and must cost no memory either.
TEST(Hostile, FilesFarLargerThanAnyRealOneAreNotLoaded) {
  TempDir dir;
  std::string elf = kestrel_fixtures::elf_image({kestrel_fixtures::elf_load(16384)});
  // The .text section header, third of four at the end: moved to 1 MiB and made 64 GiB long.
  const uint64_t text_at = 1 << 20, text_size = uint64_t{64} << 30;
  const size_t text_header = elf.size() - 2 * sizeof(Elf64_Shdr);
  memcpy(elf.data() + text_header + offsetof(Elf64_Shdr, sh_offset), &text_at, sizeof(text_at));
  memcpy(elf.data() + text_header + offsetof(Elf64_Shdr, sh_size), &text_size, sizeof(text_size));
  const std::string lib = dir.write("huge.so", elf);
  const std::string xml = dir.write("huge.xml", "<config>");
  if (truncate(lib.c_str(), static_cast<off_t>(text_at + text_size)) != 0 ||
      truncate(xml.c_str(), off_t{4} << 30) != 0) {
    GTEST_SKIP() << "no sparse files of 64 GiB in /tmp: " << strerror(errno);
  }
  const Case cases[] = {
      {"elf", {"utils", "--elf-align", lib}, "",
       "Program Header 0:\n  Type:   0x00000001\n  Offset: 0x0000000000000000\n"
       "  VAddr:  0x0000000000000000\n  PAddr:  0x0000000000000000\n"
       "  FileSz: 0x0000000000000000\n  MemSz:  0x0000000000000000\n  Flags:  0x00000000\n"
       "  Align:  16384\n",
       "error: \nVerify align pass! (^_^)\n\n", 0},
      {"xml", {"config", "--load", "all", "--file", xml}, "", "",
       "error: failed to open/parse XML file " + xml + " larger than 4 MiB\n\n", 255},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    expect_result(c, run_kestrel(c.args, {.simulator = false}));
  }
}

}  // namespace
}  // namespace kestrel_e2e
