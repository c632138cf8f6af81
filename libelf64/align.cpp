// SPDX-License-Identifier: Apache-2.0
// The device-wide 16 KiB alignment walk: the partition roots from the mount table, and every
// ELF file under them whose load segments are aligned for smaller pages.
#include "libelf64/align.h"

#include <errno.h>
#include <fcntl.h>
#include <mntent.h>
#include <string.h>

#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <vector>

#include <android-base/stringprintf.h>
#include <android-base/strings.h>
#include <android-base/unique_fd.h>

#include "libelf64/elf64.h"

namespace tarvo::kestrel::elf_align {

namespace {

namespace fs = std::filesystem;
using android::base::StringPrintf;
using android::elf64::Elf64Binary;
using android::elf64::Elf64Parser;

void report(const WalkProblem& problem, const std::string& message) {
  if (problem) problem(message);
}

// Files here are never reported: the VNDK snapshots of older releases and modem firmware are
// built by others for their own page size.
constexpr std::string_view kIgnoredPrefixes[] = {"/apex/com.android.vndk.v",
                                                  "/vendor/firmware_mnt/image"};

bool ignored_path(const std::string& path) {
  for (std::string_view prefix : kIgnoredPrefixes) {
    if (path.starts_with(prefix)) return true;
  }
  return false;
}

// The iterator gives up the whole walk when it cannot open a directory, so each directory is
// tried before the walk descends into it and left out, with a message, when it cannot be read.
bool can_descend(const fs::path& dir, const WalkProblem& problem) {
  android::base::unique_fd fd(open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd == -1) {
    report(problem, StringPrintf("cannot read directory %s: %s", dir.c_str(), strerror(errno)));
    return false;
  }
  return true;
}

}  // namespace

std::set<std::string> elf_align_roots(const char* mounts) {
  // Pseudo file systems, user data and mount points of other devices hold no partition image.
  static const std::set<std::string> kExcluded = {"/",    "/config",      "/data",
                                                  "/data_mirror", "/dev",  "/linkerconfig",
                                                  "/mnt", "/proc",        "/storage",
                                                  "/sys"};
  std::set<std::string> roots;
  std::unique_ptr<FILE, decltype(&endmntent)> table(setmntent(mounts, "re"), endmntent);
  if (!table) return roots;
  while (const mntent* entry = getmntent(table.get())) {
    std::vector<std::string> parts = android::base::Split(entry->mnt_dir, "/");
    if (parts.size() < 2) continue;
    std::string top = "/" + parts[1];
    if (!kExcluded.contains(top)) roots.insert(std::move(top));
  }
  return roots;
}

void elf_align_scan(const std::string& root, FILE* out, const WalkProblem& problem) {
  std::error_code walk_ec;
  fs::recursive_directory_iterator it(root, walk_ec);
  if (walk_ec) {
    report(problem,
           StringPrintf("cannot read directory %s: %s", root.c_str(), walk_ec.message().c_str()));
    return;
  }
  for (; it != fs::recursive_directory_iterator(); it.increment(walk_ec)) {
    const fs::directory_entry& entry = *it;
    std::error_code ec;
    if (entry.is_symlink(ec)) continue;
    if (!entry.is_regular_file(ec)) {
      if (entry.is_directory(ec) && !can_descend(entry.path(), problem)) it.disable_recursion_pending();
      continue;
    }
    const std::string& path = entry.path().native();
    Elf64Binary binary;
    if (!Elf64Parser::ParseElfHeaders(path, binary)) continue;
    if (ignored_path(path)) continue;
    for (const Elf64_Phdr& ph : binary.phdrs) {
      if (ph.p_type == PT_LOAD && ph.p_align < kMinLoadAlign) {
        fprintf(out, "%s %lu\n", path.c_str(), static_cast<unsigned long>(ph.p_align));
        break;
      }
    }
  }
  // Only a directory that failed between our check and the iterator's own open (or a failed
  // read of one) gets here; the rest of this root is lost, the other roots are still walked.
  if (walk_ec) {
    report(problem, StringPrintf("stopped walking %s: %s", root.c_str(), walk_ec.message().c_str()));
  }
}

}  // namespace tarvo::kestrel::elf_align

