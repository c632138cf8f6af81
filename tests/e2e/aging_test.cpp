// The aging daemon end to end: the shipped binary inside the sandbox, with the driver simulator
// feeding log records and a fixture /proc, until the record stream ends.
#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/e2e/harness.h"

namespace {

using kestrel_e2e::Result;
using kestrel_e2e::Sandbox;

constexpr char kDaemonFolder[] = "/data/tarvo/heapdump/kestrel";

std::string fixture(const std::string& name) {
  std::ifstream in(kestrel_e2e::fixtures_dir() + "/aging/" + name, std::ios::binary);
  EXPECT_TRUE(in.good()) << name;
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// The kernel files the daemon reads, as the fixture /proc of a device.
void lay_out_proc(Sandbox& box, bool with_dma_buf, const std::string& kmalloc_debug_enable) {
  box.make_dir("/proc/tarvo_healthinfo");
  for (const char* name : {"meminfo", "slabinfo", "vmallocinfo", "tarvo_healthinfo/kmalloc_debug",
                           "tarvo_healthinfo/kmalloc_debug_create"}) {
    box.write_file(std::string("/proc/") + name, fixture(std::string("proc/") + name));
  }
  box.write_file("/proc/tarvo_healthinfo/kmalloc_debug_enable", kmalloc_debug_enable);
  if (with_dma_buf) {
    box.make_dir("/proc/dma_buf");
    box.write_file("/proc/dma_buf/dmaprocs", fixture("proc/dma_buf/dmaprocs"));
    box.write_file("/proc/dma_buf/bufinfo", fixture("proc/dma_buf/bufinfo"));
  }
}

void make_heapdump(Sandbox& box) { box.make_dir("/data/tarvo/heapdump"); }

// Names in a folder of the sandbox, sorted; empty when the folder is missing.
std::vector<std::string> list(const Sandbox& box, const std::string& inside) {
  std::vector<std::string> names;
  DIR* dir = opendir(box.host_path(inside).c_str());
  if (dir == nullptr) return names;
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

// The permission bits in octal, e.g. "0666"; "missing" when there is no such file.
std::string mode_of(const Sandbox& box, const std::string& inside) {
  struct stat st;
  if (lstat(box.host_path(inside).c_str(), &st) != 0) return "missing";
  char text[8];
  snprintf(text, sizeof(text), "%04o", st.st_mode & 07777);
  return text;
}

// log.txt without the "MM-DD HH:MM:SS " time stamp that starts every line.
std::string strip_time(const std::string& log) {
  std::string out;
  std::istringstream lines(log);
  for (std::string line; std::getline(lines, line);) {
    out += line.size() > 15 ? line.substr(15) : "<short line: " + line + ">";
    out += "\n";
  }
  return out;
}

// The one report file a monitor wrote, e.g. dmabuf_03-14-09-26-53.txt; "" when there is not
// exactly one.
std::string report_name(const Sandbox& box, const std::string& monitor) {
  std::vector<std::string> names = list(box, std::string(kDaemonFolder) + "/" + monitor);
  if (names.size() != 1) return "";
  const std::string& name = names[0];
  // <prefix>_MM-DD-HH-MM-SS.txt
  EXPECT_EQ(name.size(), monitor.size() + 1 + 14 + 4) << name;
  EXPECT_TRUE(name.starts_with(monitor + "_") && name.ends_with(".txt")) << name;
  EXPECT_EQ(mode_of(box, std::string(kDaemonFolder) + "/" + monitor + "/" + name), "0666") << name;
  return name;
}

// What log.txt holds after start-up: the start line, the 42 meminfo figures, then the monitors'
// lines.
std::string start_log(const Sandbox& box, bool with_dma_buf, bool slab_on) {
  std::string log = fixture("log-start.golden");
  log += "I kestrel-aging: dmabuf usage 356272 Kb, write file " + report_name(box, "dmabuf") + "\n";
  if (!with_dma_buf) {
    log += "E kestrel-aging: dump_dmabuf_usage read procinfo failed, reason: No such file or directory\n"
           "E kestrel-aging: dump_dmabuf_usage read bufinfo failed, reason: No such file or directory\n";
  }
  if (slab_on) {
    log += "I kestrel-aging: slab_unreclaimable usage 472988 kB, write file " + report_name(box, "slab") + "\n";
  } else {
    log += "E kestrel-aging: aging_slab_probe slab debug enable failed\n";
  }
  log += "I kestrel-aging: vmalloc usage 101376 Kb, write file " + report_name(box, "vmalloc") + "\n";
  return log;
}

// Records of every kind the relay must tell apart, then the end of the stream.
constexpr char kScenario[] =
    "log pid=1234 tid=1240 prio=4 sec=93845 nsec=6000000 tag=kestrel msg=slab grew\\nby 4 MiB\n"
    "log pid=1 tid=1 prio=4 sec=93846 nsec=0 tag=cmd msg=echo ran > /data/tarvo/heapdump/cmd.marker\n"
    "log pid=1 tid=1 prio=4 sec=93846 nsec=0 tag=cmd msg=\n"
    "log pid=1 tid=1 prio=6 sec=93847 nsec=0 tag=cmd2 msg=touch /data/tarvo/heapdump/cmd2.marker\n"
    "log pid=1 tid=1 prio=6 sec=93847 nsec=0 tag=cm msg=touch /data/tarvo/heapdump/cm.marker\n"
    "at-end eof\n";

constexpr char kDeviceLog[] =
    "01-02 02:04:05.006  1234  1240 I kestrel :slab grew\n"
    "01-02 02:04:05.006  1234  1240 I kestrel :by 4 MiB\n"
    "01-02 02:04:06.000     1     1 I cmd     :echo ran > /data/tarvo/heapdump/cmd.marker\n"
    "01-02 02:04:07.000     1     1 E cmd2    :touch /data/tarvo/heapdump/cmd2.marker\n"
    "01-02 02:04:07.000     1     1 E cm      :touch /data/tarvo/heapdump/cm.marker\n";

const Result kEndOfStream = {.out = "", .err = "fatal: read: Unexpected EOF!\n\n", .status = 129};

void expect_result(const Result& got, const Result& want) {
  EXPECT_FALSE(got.timed_out);
  EXPECT_EQ(got.out, want.out);
  EXPECT_EQ(got.err, want.err);
  EXPECT_EQ(got.status, want.status);
}

class AgingDaemon : public ::testing::Test {
 protected:
  void SetUp() override { KESTREL_REQUIRE_SANDBOX(); }
};

TEST_F(AgingDaemon, RunsMonitorsRelaysRecordsAndEndsWithTheStream) {
  struct Case {
    const char* name;
    bool with_dma_buf;
    const char* kmalloc_debug_enable;
  };
  const Case cases[] = {
      {"full device", true, "0\n"},
      // Already on: the slab monitor stays off and gets no folder; the others run.
      {"no dma_buf, slab debug already on", false, "1\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Sandbox box;
    lay_out_proc(box, c.with_dma_buf, c.kmalloc_debug_enable);
    make_heapdump(box);
    bool slab_on = c.kmalloc_debug_enable[0] == '0';

    expect_result(box.run({"aging"}, {.scenario = kScenario}), kEndOfStream);

    // Folders and files, with the modes the daemon gives them under umask 0.
    std::vector<std::string> expected_folder = {"device.txt", "dmabuf", "log.txt", "memleak"};
    if (slab_on) expected_folder.push_back("slab");
    expected_folder.push_back("vmalloc");
    EXPECT_EQ(list(box, kDaemonFolder), expected_folder);
    EXPECT_EQ(list(box, std::string(kDaemonFolder) + "/memleak"), std::vector<std::string>{});
    for (const std::string& name : expected_folder) {
      std::string path = std::string(kDaemonFolder) + "/" + name;
      EXPECT_EQ(mode_of(box, path), name.ends_with(".txt") ? "0666" : "0777") << name;
    }
    EXPECT_EQ(mode_of(box, kDaemonFolder), "0777");

    // Reports: the usage from /proc/meminfo, then the kernel files verbatim under their headers.
    std::string dmabuf = report_name(box, "dmabuf");
    std::string vmalloc = report_name(box, "vmalloc");
    ASSERT_NE(dmabuf, "");
    ASSERT_NE(vmalloc, "");
    EXPECT_EQ(box.read_file(std::string(kDaemonFolder) + "/dmabuf/" + dmabuf),
              "dmabuf usage = 356272 Kb\n"
              "\n======> read dmabuf procinfo\n" +
                  (c.with_dma_buf ? fixture("proc/dma_buf/dmaprocs") : "") +
                  "\n======> read dmabuf bufinfo\n" +
                  (c.with_dma_buf ? fixture("proc/dma_buf/bufinfo") : ""));
    EXPECT_EQ(box.read_file(std::string(kDaemonFolder) + "/vmalloc/" + vmalloc),
              "vmalloc usage = 101376 Kb\n"
              "\n======> read /proc/vmallocinfo\n" +
                  fixture("proc/vmallocinfo"));
    if (slab_on) {
      std::string slab = report_name(box, "slab");
      ASSERT_NE(slab, "");
      EXPECT_EQ(box.read_file(std::string(kDaemonFolder) + "/slab/" + slab),
                "slab usage = 472988\n"
                "\n======> read /proc/slabinfo\n" +
                    fixture("proc/slabinfo") + "\n======> read slab debug\n" +
                    fixture("proc/tarvo_healthinfo/kmalloc_debug"));
      // Switched on, and the caches asked for in turn, the last one being 8192.
      EXPECT_EQ(box.read_file("/proc/tarvo_healthinfo/kmalloc_debug_enable"), "1");
      EXPECT_EQ(box.read_file("/proc/tarvo_healthinfo/kmalloc_debug_create"), "8192");
    } else {
      EXPECT_EQ(box.read_file("/proc/tarvo_healthinfo/kmalloc_debug_enable"), "1\n");
      EXPECT_EQ(box.read_file("/proc/tarvo_healthinfo/kmalloc_debug_create"), "");
    }

    std::string log = start_log(box, c.with_dma_buf, slab_on);
    log += "I kestrel-aging: cmd echo ran > /data/tarvo/heapdump/cmd.marker\n";
    log += "I kestrel-aging: cmd \n";
    EXPECT_EQ(strip_time(box.read_file(std::string(kDaemonFolder) + "/log.txt")), log);

    EXPECT_EQ(box.read_file(std::string(kDaemonFolder) + "/device.txt"), kDeviceLog);
    // Only the record tagged exactly "cmd" ran.
    EXPECT_EQ(box.read_file("/data/tarvo/heapdump/cmd.marker"), "ran\n");
    EXPECT_EQ(list(box, "/data/tarvo/heapdump"), (std::vector<std::string>{"cmd.marker", "kestrel"}));
  }
}

TEST_F(AgingDaemon, AppendsToExistingLogsAndAcceptsExistingFolders) {
  Sandbox box;
  lay_out_proc(box, true, "0");
  make_heapdump(box);
  box.make_dir(kDaemonFolder, 0700);
  box.make_dir(std::string(kDaemonFolder) + "/memleak", 0700);
  box.write_file(std::string(kDaemonFolder) + "/log.txt", "earlier log line\n", 0600);
  box.write_file(std::string(kDaemonFolder) + "/device.txt", "earlier device line\n", 0600);

  expect_result(box.run({"aging"}, {.scenario = "log pid=7 tid=7 prio=4 sec=0 nsec=0 tag=t msg=x\n"}),
                kEndOfStream);

  const std::string earlier = "earlier log line\n";
  std::string log = box.read_file(std::string(kDaemonFolder) + "/log.txt");
  ASSERT_TRUE(log.starts_with(earlier)) << log;
  EXPECT_EQ(strip_time(log.substr(earlier.size())), start_log(box, true, true));
  EXPECT_EQ(box.read_file(std::string(kDaemonFolder) + "/device.txt"),
            "earlier device line\n"
            "01-01 00:00:00.000     7     7 I t       :x\n");
  // Existing entries keep their modes.
  EXPECT_EQ(mode_of(box, kDaemonFolder), "0700");
  EXPECT_EQ(mode_of(box, std::string(kDaemonFolder) + "/log.txt"), "0600");
}

// Start-up failures end the daemon before it creates anything.
TEST_F(AgingDaemon, RefusesToStartWithoutDriverMeminfoOrHeapdumpFolder) {
  struct Case {
    const char* name;
    const char* scenario;
    const char* meminfo;  // null: no /proc/meminfo
    const char* heapdump;  // "dir", "file" or "none"
    const char* err;
  };
  const Case cases[] = {
      {"driver absent", "device absent\n", "MemTotal: 1 kB\n", "dir",
       "fatal: aging: kestrel dev does not exist\n"},
      {"no meminfo", "", nullptr, "dir", "fatal: aging: meminfo parse failed\n"},
      {"one-word meminfo line", "", "MemTotal: 1 kB\nHugePages\n", "dir",
       "fatal: aging: meminfo parse failed\n"},
      {"heapdump missing", "", "MemTotal: 1 kB\n", "none",
       "fatal: aging: daemon start failed, reason: No such file or directory\n"},
      {"heapdump is a file", "", "MemTotal: 1 kB\n", "file",
       "fatal: aging: daemon start failed, reason: Not a directory\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Sandbox box;
    if (c.meminfo) box.write_file("/proc/meminfo", c.meminfo);
    box.make_dir("/data/tarvo");
    if (std::string(c.heapdump) == "dir") box.make_dir("/data/tarvo/heapdump");
    if (std::string(c.heapdump) == "file") box.write_file("/data/tarvo/heapdump", "");

    std::string scenario = std::string(c.scenario) + "at-end hold\n";
    expect_result(box.run({"aging"}, {.scenario = scenario}), {.out = "", .err = c.err, .status = 129});
    std::vector<std::string> untouched;
    if (std::string(c.heapdump) != "none") untouched.push_back("heapdump");
    EXPECT_EQ(list(box, "/data/tarvo"), untouched);
    EXPECT_EQ(list(box, "/data/tarvo/heapdump"), std::vector<std::string>{});
  }
}

}  // namespace
