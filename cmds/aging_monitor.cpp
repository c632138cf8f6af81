// SPDX-License-Identifier: Apache-2.0
// aging_monitor.cpp: the aging daemon's kernel memory monitors for dma-buf, unreclaimable slab
// and vmalloc memory. Each probe registers its monitor and writes a first report; a report is
// the usage taken from /proc/meminfo followed by verbatim copies of the kernel's own files.
#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <time.h>

#include <string>

#include <android-base/file.h>
#include <android-base/stringprintf.h>
#include <android-base/unique_fd.h>

#include "cmds/aging_daemon.h"
#include "cmds/aging_monitor.h"
#include "libs/kestrel/kit.h"
#include "libs/kestrel/sys-memstat.h"
#include "platform/log.h"

namespace {

namespace memstat = tarvo::kestrel::memstat;

struct monitor_data {
  int64_t usage;  // kB, from the last meminfo snapshot handed in
  int64_t limit;
};

// Above this dma-buf usage (kB, 1 GiB) the handler writes a report.
constexpr int64_t kDmabufDumpAbove = 1048576;
constexpr int64_t kSlabVmallocLimit = 0x10000;
constexpr char kSectionMarker[] = "======>";

int dmabuf_handler(aging_mem_monitor* monitor, meminfo* mem);
int slab_handler(aging_mem_monitor* monitor, meminfo* mem);
int vmalloc_handler(aging_mem_monitor* monitor, meminfo* mem);

monitor_data g_dmabuf_data;
monitor_data g_slab_data;
monitor_data g_vmalloc_data;

aging_mem_monitor g_monitors[] = {
    {"dmabuf", dmabuf_handler, &g_dmabuf_data},
    {"slab", slab_handler, &g_slab_data},
    {"vmalloc", vmalloc_handler, &g_vmalloc_data},
};
aging_mem_monitor& g_dmabuf_monitor = g_monitors[0];
aging_mem_monitor& g_slab_monitor = g_monitors[1];
aging_mem_monitor& g_vmalloc_monitor = g_monitors[2];

monitor_data* data_of(const aging_mem_monitor* monitor) {
  return static_cast<monitor_data*>(monitor->data);
}

// One section of a report: a header, then the content of a kernel file (or, with no source,
// the slab debug dump). A source that cannot be read leaves its header alone.
struct report_section {
  const char* header;   // filled with kSectionMarker
  const char* source;   // null: the kmalloc debug dump
  const char* failure;  // filled with the operation name and the error text
};

struct report_layout {
  const char* operation;   // the name error messages carry
  const char* prefix;      // of the file name, before the time stamp
  const char* usage_line;  // logged with usage and file name
  const char* first_line;  // written with usage
  report_section sections[2];
};

constexpr report_layout kDmabufReport = {
    .operation = "dump_dmabuf_usage",
    .prefix = "dmabuf",
    .usage_line = "dmabuf usage %lu Kb, write file %s",
    .first_line = "dmabuf usage = %lu Kb\n",
    .sections = {{"\n%s read dmabuf procinfo\n", "/proc/dma_buf/dmaprocs",
                  "%s read procinfo failed, reason: %s"},
                 {"\n%s read dmabuf bufinfo\n", "/proc/dma_buf/bufinfo",
                  "%s read bufinfo failed, reason: %s"}},
};

// The slab debug section reports its failure in the words of the slabinfo one.
constexpr report_layout kSlabReport = {
    .operation = "dump_slab_usage",
    .prefix = "slab",
    .usage_line = "slab_unreclaimable usage %lu kB, write file %s",
    .first_line = "slab usage = %lu\n",
    .sections = {{"\n%s read /proc/slabinfo\n", "/proc/slabinfo",
                  "%s read slabinfo failed, reason: %s"},
                 {"\n%s read slab debug\n", nullptr, "%s read slabinfo failed, reason: %s"}},
};

constexpr report_layout kVmallocReport = {
    .operation = "dump_vmalloc_usage",
    .prefix = "vmalloc",
    .usage_line = "vmalloc usage %lu Kb, write file %s",
    .first_line = "vmalloc usage = %lu Kb\n",
    .sections = {{"\n%s read /proc/vmallocinfo\n", "/proc/vmallocinfo",
                  "%s read procinfo failed, reason: %s"}},
};

// Writes <prefix>_<month-day-hour-minute-second>.txt into the monitor's folder, appending, so
// two reports within one second share a file.
void dump_usage(const report_layout& layout, const aging_mem_monitor* monitor) {
  char stamp[64];
  tarvo::kestrel::kit::local_time(time(nullptr), "%m-%d-%H-%M-%S", stamp, sizeof(stamp));
  std::string file_name = android::base::StringPrintf("%s_%s.txt", layout.prefix, stamp);

  android::base::unique_fd fd(aging_open_file(monitor, file_name.c_str()));
  if (fd < 0) {
    aging_log(ANDROID_LOG_ERROR, "%s create file %s failed", layout.operation, file_name.c_str());
    return;
  }
  unsigned long usage = static_cast<unsigned long>(data_of(monitor)->usage);
  aging_log(ANDROID_LOG_INFO, layout.usage_line, usage, file_name.c_str());
  android::base::WriteStringToFd(android::base::StringPrintf(layout.first_line, usage), fd);

  for (const report_section& section : layout.sections) {
    if (section.header == nullptr) break;
    android::base::WriteStringToFd(android::base::StringPrintf(section.header, kSectionMarker), fd);
    std::string content;
    bool ok = section.source ? android::base::ReadFileToString(section.source, &content, false)
                             : memstat::read_slab_debug_dump(&content);
    if (!ok) {
      aging_log(ANDROID_LOG_ERROR, section.failure, layout.operation, strerror(errno));
      continue;
    }
    android::base::WriteStringToFd(content, fd);
  }
}

void dump_dmabuf_usage(const aging_mem_monitor* monitor) { dump_usage(kDmabufReport, monitor); }
void dump_slab_usage(const aging_mem_monitor* monitor) { dump_usage(kSlabReport, monitor); }
void dump_vmalloc_usage(const aging_mem_monitor* monitor) { dump_usage(kVmallocReport, monitor); }

int dmabuf_handler(aging_mem_monitor* monitor, meminfo* mem) {
  monitor_data* data = data_of(monitor);
  data->usage = static_cast<int64_t>(mem->ion_total_used);
  if (data->usage > kDmabufDumpAbove) dump_dmabuf_usage(monitor);
  return 0;
}

// The slab and vmalloc handlers dump only while `limit` is negative. Their probes set it to
// 0x10000, so a registered monitor never dumps from here; the rule tests the sign of the limit,
// not the usage against it, and is kept that way on purpose.
int dump_if_limit_negative(aging_mem_monitor* monitor, uint64_t usage,
                           void (*dump)(const aging_mem_monitor*)) {
  monitor_data* data = data_of(monitor);
  int64_t limit = data->limit;
  data->usage = static_cast<int64_t>(usage);
  if (limit < 0) dump(monitor);
  return 0;
}

int slab_handler(aging_mem_monitor* monitor, meminfo* mem) {
  return dump_if_limit_negative(monitor, mem->s_unreclaim, dump_slab_usage);
}

int vmalloc_handler(aging_mem_monitor* monitor, meminfo* mem) {
  return dump_if_limit_negative(monitor, mem->vmalloc_used, dump_vmalloc_usage);
}

// Registers a monitor whose conditions hold, records its usage and limit and writes its first
// report; `probe` names the caller in the error line.
bool start_monitor(const char* probe, aging_mem_monitor* monitor, uint64_t usage, int64_t limit,
                   void (*dump)(const aging_mem_monitor*)) {
  if (aging_regist_monitor(monitor) != 0) {
    aging_log(ANDROID_LOG_ERROR, "%s regist monitor failed", probe);
    return false;
  }
  data_of(monitor)->usage = static_cast<int64_t>(usage);
  data_of(monitor)->limit = limit;
  dump(monitor);
  return true;
}

}  // namespace

// dmabuf has no limit: its handler compares the usage with a fixed 1 GiB.
int aging_dmabuf_probe(meminfo* mem) {
  return start_monitor(__func__, &g_dmabuf_monitor, mem->ion_total_used, 0, dump_dmabuf_usage);
}

int aging_slab_probe(meminfo* mem) {
  if (!memstat::slab_debug_enable(true)) {
    aging_log(ANDROID_LOG_ERROR, "%s slab debug enable failed", __func__);
    return false;
  }
  // Every cache is asked for, whatever the others answer; one is enough to go on.
  bool any_created = false;
  for (const char* cache : memstat::kSlabCaches) {
    if (memstat::slab_debug_create(cache)) any_created = true;
  }
  if (!any_created) {
    aging_log(ANDROID_LOG_ERROR, "%s create slab debug failed", __func__);
    return false;
  }
  return start_monitor(__func__, &g_slab_monitor, mem->s_unreclaim, kSlabVmallocLimit,
                       dump_slab_usage);
}

int aging_vmalloc_probe(meminfo* mem) {
  return start_monitor(__func__, &g_vmalloc_monitor, mem->vmalloc_used, kSlabVmallocLimit,
                       dump_vmalloc_usage);
}
