// SPDX-License-Identifier: Apache-2.0
// The whole-tree 16 KiB alignment scan of `kestrel utils --elf-align` over a large folder of real
// ELF files (argument 1, default the host's multiarch library folder), against baselines measured
// in the same run:
//   - the script people write for this check: for each file that find lists, one `readelf -lW`,
//     its output searched for LOAD alignments (and, as the script's best case, the same with the
//     files batched through xargs);
//   - a bare read of the bytes the scan reads, with the files found by the same walk: the first
//     4 KiB of every regular file and, for a 64-bit ELF file, the section header table with the
//     2 KiB before it and the section-name string table when it lies outside both. Only the few
//     fields that locate these ranges are looked at: no checks, no copies, no names.
// The page cache is warmed first, so every figure is a warm-cache one.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>

#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <benchmark/benchmark.h>
#include <elf.h>

#include "bench/ratio.h"
#include "libelf64/align.h"

namespace {

namespace fs = std::filesystem;

std::string g_dir = "/usr/lib/x86_64-linux-gnu";

// Files the scan reports, counted from its output.
size_t scan_once() {
  char* text = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&text, &size);
  tarvo::kestrel::elf_align::elf_align_scan(g_dir, out);
  fclose(out);
  size_t lines = std::count(text, text + size, '\n');
  free(text);
  return lines;
}

// Runs a shell pipeline printing readelf output with "File: <path>" before each file, and
// counts the files whose first LOAD alignment is below 16 KiB, as a script would.
size_t script_once(const std::string& pipeline) {
  FILE* p = popen(pipeline.c_str(), "r");
  if (p == nullptr) return 0;
  size_t offenders = 0;
  bool reported = true;
  char line[4096];
  while (fgets(line, sizeof(line), p) != nullptr) {
    if (strncmp(line, "File: ", 6) == 0) {
      reported = false;
      continue;
    }
    char type[16];
    if (reported || sscanf(line, " %15s", type) != 1 || strcmp(type, "LOAD") != 0) continue;
    const char* last = strrchr(line, ' ');
    if (last != nullptr && strtoull(last + 1, nullptr, 16) < tarvo::kestrel::elf_align::kMinLoadAlign) {
      offenders++;
      reported = true;
    }
  }
  pclose(p);
  return offenders;
}

// One read of [offset, offset + length) clipped to the file; the bytes read.
size_t read_range(int fd, uint64_t size, uint64_t offset, uint64_t length, std::string& buf) {
  if (offset >= size) return 0;
  length = std::min(length, size - offset);
  buf.resize(length);
  ssize_t n = pread(fd, buf.data(), length, static_cast<off_t>(offset));
  return n > 0 ? static_cast<size_t>(n) : 0;
}

size_t bare_read_once() {
  size_t bytes = 0;
  std::string head, table, names;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(g_dir, ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code entry_ec;
    if (it->is_symlink(entry_ec) || !it->is_regular_file(entry_ec)) continue;
    android::base::unique_fd fd(open(it->path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat st;
    if (fd == -1 || fstat(fd.get(), &st) != 0) continue;
    const uint64_t size = st.st_size;
    bytes += read_range(fd.get(), size, 0, 4096, head);
    if (head.size() < sizeof(Elf64_Ehdr) || head[EI_CLASS] != ELFCLASS64) continue;
    Elf64_Ehdr eh;
    memcpy(&eh, head.data(), sizeof(eh));
    const uint64_t start = eh.e_shoff - std::min<uint64_t>(eh.e_shoff, 2048);
    const uint64_t end_of_table = eh.e_shoff + uint64_t{eh.e_shnum} * sizeof(Elf64_Shdr);
    if (eh.e_shnum == 0 || end_of_table > size || eh.e_shstrndx >= eh.e_shnum) continue;
    bytes += read_range(fd.get(), size, start, end_of_table - start, table);
    Elf64_Shdr sh;
    memcpy(&sh, table.data() + (eh.e_shoff - start) + eh.e_shstrndx * sizeof(sh), sizeof(sh));
    bool in_head = sh.sh_offset + sh.sh_size <= head.size();
    bool in_table = sh.sh_offset >= start && sh.sh_offset + sh.sh_size <= end_of_table;
    if (!in_head && !in_table) bytes += read_range(fd.get(), size, sh.sh_offset, sh.sh_size, names);
  }
  return bytes;
}

bool have_readelf() { return system("readelf --version >/dev/null 2>&1") == 0; }

void BM_ElfAlignScan(benchmark::State& state) {
  size_t found = 0;
  for (auto _ : state) found = scan_once();
  state.counters["offenders"] = found;
}

void BM_ScriptReadelfPerFile(benchmark::State& state) {
  if (!have_readelf()) return state.SkipWithError("no readelf on this machine");
  const std::string cmd = "find '" + g_dir +
                          "' -type f | while IFS= read -r f; do printf 'File: %s\\n' \"$f\"; "
                          "readelf -lW \"$f\" 2>/dev/null; done";
  size_t found = 0;
  for (auto _ : state) found = script_once(cmd);
  state.counters["offenders"] = found;
}

void BM_ScriptReadelfBatched(benchmark::State& state) {
  if (!have_readelf()) return state.SkipWithError("no readelf on this machine");
  // With more than one file readelf prints the "File: " lines itself.
  const std::string cmd =
      "find '" + g_dir + "' -type f -print0 | xargs -0 readelf -lW 2>/dev/null";
  size_t found = 0;
  for (auto _ : state) found = script_once(cmd);
  state.counters["offenders"] = found;
}

void BM_BareRead(benchmark::State& state) {
  size_t bytes = 0;
  for (auto _ : state) bytes = bare_read_once();
  state.counters["bytes"] = bytes;
}

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc > 1) g_dir = argv[1];
  std::error_code ec;
  if (!fs::is_directory(g_dir, ec)) {
    fprintf(stderr, "bench_elf_align: %s is not a directory\n", g_dir.c_str());
    return 1;
  }
  scan_once();
  bare_read_once();

  benchmark::RegisterBenchmark("BM_ElfAlignScan", BM_ElfAlignScan)->Iterations(5)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_BareRead", BM_BareRead)->Iterations(5)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_ScriptReadelfBatched", BM_ScriptReadelfBatched)->Iterations(2)->Unit(benchmark::kMillisecond);
  benchmark::RegisterBenchmark("BM_ScriptReadelfPerFile", BM_ScriptReadelfPerFile)->Iterations(1)->Unit(benchmark::kMillisecond);
  // The scripts' time is spent in the programs they start.
  RatioReporter reporter(RatioReporter::kRealTime);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const auto& t = reporter.times();
  auto ratio = [&](const char* what, const char* num, const char* den, const char* target) {
    if (t.count(num) && t.count(den) && t.at(den) > 0) {
      printf("%-40s %6.2fx   (%s)\n", what, t.at(num) / t.at(den), target);
    }
  };
  printf("\nscan of %s\n", g_dir.c_str());
  ratio("per-file readelf script / scan", "BM_ScriptReadelfPerFile", "BM_ElfAlignScan", "target >= 20");
  ratio("batched readelf script / scan", "BM_ScriptReadelfBatched", "BM_ElfAlignScan", "for reference");
  ratio("scan / bare read of the same bytes", "BM_ElfAlignScan", "BM_BareRead", "target <= 1.5");
  return 0;
}
