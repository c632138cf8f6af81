// SPDX-License-Identifier: Apache-2.0
// The aging daemon end to end: the shipped binary inside the sandbox, with the driver simulator
// feeding log records and a fixture /proc, until the record stream ends.
#include <filesystem>
#include <regex>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"

namespace {

namespace fs = std::filesystem;
using kestrel_e2e::Sandbox;

const std::string kFixtures = kestrel_e2e::fixtures_dir() + "/aging/";
const std::string kDaemonFolder = "/data/tarvo/heapdump/kestrel";

std::string fixture(const std::string& name) { return kestrel_e2e::read_text(kFixtures + name); }

// Time stamps of log lines and report names replaced, so that the text compares whole.
std::string untimed(const std::string& text) {
  static const std::regex line_stamp(R"((^|\n)\d\d-\d\d \d\d:\d\d:\d\d )");
  static const std::regex name_stamp(R"(_\d\d-\d\d-\d\d-\d\d-\d\d\.txt)");
  return std::regex_replace(std::regex_replace(text, line_stamp, "$1"), name_stamp, "_<time>.txt");
}

// Everything under a folder of the sandbox, one "<path> <mode>" line each, sorted.
std::string tree(const Sandbox& box, const std::string& inside) {
  const std::string list = "cd '" + box.host_path(inside) +
                           "' && find . -mindepth 1 -printf '%P %#m\\n' | LC_ALL=C sort";
  return untimed(kestrel_e2e::run_program({"/bin/sh", "-c", list}, {.simulator = false}).out);
}

// The reports a monitor wrote, one after the other; "" when it has no folder.
std::string report(const Sandbox& box, const std::string& monitor) {
  const std::string cat = "cat '" + box.host_path(kDaemonFolder + "/" + monitor) + "'/* 2>/dev/null";
  return kestrel_e2e::run_program({"/bin/sh", "-c", cat}, {.simulator = false}).out;
}

void expect_fatal(const kestrel_e2e::Result& got, const std::string& err) {
  EXPECT_EQ(std::tie(got.out, got.err, got.status, got.timed_out), std::make_tuple("", err, 129, false));
}

TEST(AgingDaemon, RunsMonitorsRelaysRecordsAndEndsWithTheStream) {
  KESTREL_REQUIRE_SANDBOX();
  if (!kestrel_e2e::run_program({"/bin/sh", "-c", ":"}).err.empty()) {
    GTEST_SKIP() << "the shell of cmd records cannot preload the simulator (a host /bin/sh under qemu-user)";
  }
  // debug_enable: kmalloc_debug_enable before the start; earlier: a line an earlier run left in
  // both logs ("": no earlier run); tree: the heapdump folder afterwards, new entries with their
  // modes under umask 0; monitor_log: log.txt after the meminfo figures, before the records.
  const struct {
    const char *name, *debug_enable;
    bool dma_buf;
    const char *earlier, *tree, *monitor_log;
  } cases[] = {
      {"full device", "0\n", true, "",
       "cmd.marker 0666\nkestrel 0777\nkestrel/device.txt 0666\nkestrel/dmabuf 0777\n"
       "kestrel/dmabuf/dmabuf_<time>.txt 0666\nkestrel/log.txt 0666\nkestrel/memleak 0777\n"
       "kestrel/slab 0777\nkestrel/slab/slab_<time>.txt 0666\nkestrel/vmalloc 0777\n"
       "kestrel/vmalloc/vmalloc_<time>.txt 0666\n",
       "I kestrel-aging: dmabuf usage 356272 Kb, write file dmabuf_<time>.txt\n"
       "I kestrel-aging: slab_unreclaimable usage 472988 kB, write file slab_<time>.txt\n"
       "I kestrel-aging: vmalloc usage 101376 Kb, write file vmalloc_<time>.txt\n"},
      // Slab debug already on: the slab monitor stays off and gets no folder.
      {"no dma_buf, slab debug on, earlier run", "1\n", false,
       "01-01 00:00:00 I kestrel-aging: earlier run\n",
       "cmd.marker 0666\nkestrel 0700\nkestrel/device.txt 0600\nkestrel/dmabuf 0777\n"
       "kestrel/dmabuf/dmabuf_<time>.txt 0666\nkestrel/log.txt 0600\nkestrel/memleak 0777\n"
       "kestrel/vmalloc 0777\nkestrel/vmalloc/vmalloc_<time>.txt 0666\n",
       "I kestrel-aging: dmabuf usage 356272 Kb, write file dmabuf_<time>.txt\n"
       "E kestrel-aging: dump_dmabuf_usage read procinfo failed, reason: No such file or directory\n"
       "E kestrel-aging: dump_dmabuf_usage read bufinfo failed, reason: No such file or directory\n"
       "E kestrel-aging: aging_slab_probe slab debug enable failed\n"
       "I kestrel-aging: vmalloc usage 101376 Kb, write file vmalloc_<time>.txt\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Sandbox box;
    fs::copy(kFixtures + "proc", box.host_path("/proc"), fs::copy_options::recursive);
    if (!c.dma_buf) fs::remove_all(box.host_path("/proc/dma_buf"));
    box.write_file("/proc/tarvo_healthinfo/kmalloc_debug_enable", c.debug_enable);
    box.make_dir("/data/tarvo/heapdump");
    if (*c.earlier) {
      box.make_dir(kDaemonFolder, 0700);
      box.write_file(kDaemonFolder + "/log.txt", c.earlier, 0600);
      box.write_file(kDaemonFolder + "/device.txt", c.earlier, 0600);
    }

    expect_fatal(box.run({"aging"}, {.scenario =
        "log pid=1234 tid=1240 prio=4 sec=93845 nsec=6000000 tag=kestrel msg=slab grew\\nby 4 MiB\n"
        "log pid=1 tid=1 prio=4 sec=93846 nsec=0 tag=cmd msg=echo ran > /data/tarvo/heapdump/cmd.marker\n"
        "log pid=1 tid=1 prio=6 sec=93847 nsec=0 tag=cmd2 msg=touch /data/tarvo/heapdump/cmd2.marker\n"
        "log pid=1 tid=1 prio=6 sec=93847 nsec=0 tag=cm msg=touch /data/tarvo/heapdump/cm.marker\n"}),
                 "fatal: read: Unexpected EOF!\n\n");

    // Only the record tagged exactly "cmd" ran: no marker of cmd2 or cm.
    EXPECT_EQ(tree(box, "/data/tarvo/heapdump"), c.tree);
    EXPECT_EQ(box.read_file("/data/tarvo/heapdump/cmd.marker"), "ran\n");
    EXPECT_EQ(untimed(box.read_file(kDaemonFolder + "/log.txt")),
              untimed(c.earlier) + fixture("log-start.golden") + c.monitor_log +
                  "I kestrel-aging: cmd echo ran > /data/tarvo/heapdump/cmd.marker\n");
    EXPECT_EQ(box.read_file(kDaemonFolder + "/device.txt"),
              std::string(c.earlier) +
                  "01-02 02:04:05.006  1234  1240 I kestrel :slab grew\n"
                  "01-02 02:04:05.006  1234  1240 I kestrel :by 4 MiB\n"
                  "01-02 02:04:06.000     1     1 I cmd     :echo ran > /data/tarvo/heapdump/cmd.marker\n"
                  "01-02 02:04:07.000     1     1 E cmd2    :touch /data/tarvo/heapdump/cmd2.marker\n"
                  "01-02 02:04:07.000     1     1 E cm      :touch /data/tarvo/heapdump/cm.marker\n");

    // Reports: the usage from /proc/meminfo, then the kernel files verbatim under their headers.
    EXPECT_EQ(report(box, "dmabuf"), "dmabuf usage = 356272 Kb\n\n======> read dmabuf procinfo\n" +
                                         (c.dma_buf ? fixture("proc/dma_buf/dmaprocs") : "") +
                                         "\n======> read dmabuf bufinfo\n" +
                                         (c.dma_buf ? fixture("proc/dma_buf/bufinfo") : ""));
    EXPECT_EQ(report(box, "vmalloc"),
              "vmalloc usage = 101376 Kb\n\n======> read /proc/vmallocinfo\n" + fixture("proc/vmallocinfo"));
    bool slab_on = c.debug_enable[0] == '0';
    EXPECT_EQ(report(box, "slab"), !slab_on ? "" :
              "slab usage = 472988\n\n======> read /proc/slabinfo\n" + fixture("proc/slabinfo") +
                  "\n======> read slab debug\n" + fixture("proc/tarvo_healthinfo/kmalloc_debug"));
    // Switched on, and the caches asked for in turn, the last one being 8192.
    EXPECT_EQ(box.read_file("/proc/tarvo_healthinfo/kmalloc_debug_enable"), slab_on ? "1" : c.debug_enable);
    EXPECT_EQ(box.read_file("/proc/tarvo_healthinfo/kmalloc_debug_create"), slab_on ? "8192" : "");
  }
}

// Start-up failures end the daemon before it creates anything.
TEST(AgingDaemon, RefusesToStartWithoutDriverMeminfoOrHeapdumpFolder) {
  KESTREL_REQUIRE_SANDBOX();
  const struct { const char* scenario; bool meminfo, heapdump; const char* err; } cases[] = {
      {"device absent\n", true, true, "fatal: aging: kestrel dev does not exist\n"},
      {"at-end eof\n", false, true, "fatal: aging: meminfo parse failed\n"},
      {"at-end eof\n", true, false, "fatal: aging: daemon start failed, reason: No such file or directory\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.err);
    Sandbox box;
    if (c.meminfo) box.write_file("/proc/meminfo", "MemTotal: 1 kB\n");
    box.make_dir(c.heapdump ? "/data/tarvo/heapdump" : "/data/tarvo");
    expect_fatal(box.run({"aging"}, {.scenario = c.scenario}), c.err);
    EXPECT_EQ(tree(box, "/data/tarvo"), c.heapdump ? "heapdump 0755\n" : "");
  }
}

}  // namespace
