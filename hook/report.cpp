// SPDX-License-Identifier: Apache-2.0
// The malloc hook's answers as text and as driver log records. Runs on the hook's worker thread
// only, whose own allocations are never recorded, so it may allocate freely.
#include "hook/report.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <inttypes.h>
#include <link.h>
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

namespace kestrel_hook {
namespace {

// Room for the message in one payload: priority byte, tag, two zero bytes.
constexpr size_t kMaxMessage = kMaxPayload - sizeof(kTag) - 2;

std::string payload(std::string_view message) {
  std::string p(1, kPriorityInfo);
  p.append(kTag, sizeof(kTag));  // with its zero byte
  p.append(message);
  p.push_back('\0');
  return p;
}

// The main program's link map has an empty name.
const std::string& program_path() {
  static const std::string path = [] {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
  }();
  return path;
}

}  // namespace

std::string printf_string(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  int n = vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  return std::string(buf, n < 0 ? 0 : std::min<size_t>(static_cast<size_t>(n), sizeof(buf) - 1));
}

std::vector<std::string> to_payloads(std::string_view text) {
  std::vector<std::string> out;
  while (!text.empty()) {
    size_t take = text.size();
    size_t skip = 0;
    if (take > kMaxMessage) {
      size_t nl = text.rfind('\n', kMaxMessage);
      take = nl != std::string_view::npos && nl > 0 ? nl : kMaxMessage;
      skip = nl != std::string_view::npos && nl > 0 ? 1 : 0;
    }
    out.push_back(payload(text.substr(0, take)));
    text.remove_prefix(take + skip);
  }
  return out;
}

std::string describe_frame(int index, uintptr_t pc) {
  Dl_info info = {};
  link_map* map = nullptr;
  if (dladdr1(reinterpret_cast<void*>(pc), &info, reinterpret_cast<void**>(&map),
              RTLD_DL_LINKMAP) == 0 || map == nullptr) {
    return printf_string("  #%02d pc %016" PRIxPTR "  <unknown>", index, pc);
  }
  const char* module = map->l_name[0] != '\0' ? map->l_name : program_path().c_str();
  std::string line =
      printf_string("  #%02d pc %016" PRIxPTR "  %s", index, pc - map->l_addr, module);
  if (info.dli_sname != nullptr && info.dli_saddr != nullptr) {
    line += printf_string(" (%s+0x%" PRIxPTR ")", info.dli_sname,
                          pc - reinterpret_cast<uintptr_t>(info.dli_saddr));
  }
  return line;
}

std::vector<std::string> dump_texts(std::vector<Group> groups, const RecorderStats& stats,
                                    bool recording) {
  std::vector<std::string> out;
  if (!recording) {
    out.push_back("malloc debug is not enabled: nothing recorded");
    out.push_back("END of malloc debug dump");
    return out;
  }
  sort_groups(&groups);
  uint64_t bytes = 0, count = 0;
  for (const Group& g : groups) {
    bytes += g.bytes;
    count += g.count;
  }
  out.push_back(printf_string("%" PRIu64 " bytes in %" PRIu64 " allocations from %zu backtraces",
                              bytes, count, groups.size()));
  uint64_t rest_bytes = 0, rest_count = 0;
  for (size_t i = 0; i < groups.size(); ++i) {
    const Group& g = groups[i];
    if (i >= kMaxDumpGroups) {
      rest_bytes += g.bytes;
      rest_count += g.count;
      continue;
    }
    std::string text = printf_string("%" PRIu64 " bytes in %" PRIu64 " allocations", g.bytes,
                                     g.count);
    if (g.table_full) text += " (no backtrace: the backtrace table was full)";
    for (size_t f = 0; f < g.frames.size(); ++f) {
      text += '\n';
      text += describe_frame(static_cast<int>(f), g.frames[f]);
    }
    out.push_back(std::move(text));
  }
  if (groups.size() > kMaxDumpGroups) {
    out.push_back(printf_string("%zu more backtraces: %" PRIu64 " bytes in %" PRIu64
                                " allocations",
                                groups.size() - kMaxDumpGroups, rest_bytes, rest_count));
  }
  out.push_back(printf_string("END of malloc debug dump: the recorder holds %zu allocations and "
                              "%zu backtraces in %zu KiB; %" PRIu64 " allocations not recorded",
                              stats.allocations, stats.stacks, stats.table_bytes / 1024,
                              stats.unrecorded));
  return out;
}

LogWriter::LogWriter() : fd_(TEMP_FAILURE_RETRY(open(kLogDevice, O_WRONLY | O_CLOEXEC))) {}

LogWriter::~LogWriter() {
  if (fd_ >= 0) close(fd_);
}

void LogWriter::write(std::string_view text) {
  if (fd_ < 0) return;
  for (const std::string& p : to_payloads(text)) {
    if (TEMP_FAILURE_RETRY(::write(fd_, p.data(), p.size())) < 0) return;
  }
}

}  // namespace kestrel_hook
