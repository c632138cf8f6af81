// SPDX-License-Identifier: Apache-2.0
// Slab debug control through the vendor health-information files. Log readers match these
// messages by file and line, so every one carries its fixed line number.
#include "libs/kestrel/sys-memstat.h"

#include <errno.h>
#include <string.h>

#include <android-base/errno_restorer.h>
#include <android-base/file.h>

#include "platform/log.h"

// Logs without disturbing errno, which callers report again.
#define SLAB_LOGE(line, fmt, ...)                       \
  do {                                                  \
    android::base::ErrnoRestorer keep_errno;            \
    KLOGE_AT(line, fmt __VA_OPT__(, ) __VA_ARGS__);     \
  } while (0)

namespace tarvo::kestrel::memstat {

namespace {

bool is_slab_cache(const char* name) {
  for (const char* cache : kSlabCaches) {
    if (strcmp(name, cache) == 0) return true;
  }
  return false;
}

}  // namespace

bool slab_debug_enable(bool enable, const SlabDebugPaths& paths) {
  std::string state;
  if (!android::base::ReadFileToString(paths.enable, &state, false) || state.empty()) {
    SLAB_LOGE(27, "read slab debug enable failed, reason: %s\n", strerror(errno));
    return false;
  }
  const char wanted = enable ? '1' : '0';
  if (state[0] != wanted && android::base::WriteStringToFile(std::string(1, wanted), paths.enable, false)) {
    return true;
  }
  SLAB_LOGE(34, "write slab debug enable failed, reason: %s\n", strerror(errno));
  return false;
}

bool slab_debug_create(const char* name, const SlabDebugPaths& paths) {
  if (name == nullptr || !is_slab_cache(name)) {
    SLAB_LOGE(50, "invalid slab name %s\n", name ? name : "(null)");
    return false;
  }
  if (android::base::WriteStringToFile(name, paths.create, false)) return true;
  return errno == EEXIST;
}

bool read_slab_debug_dump(std::string* out, const SlabDebugPaths& paths) {
  if (!android::base::ReadFileToString(paths.dump, out, false)) {
    SLAB_LOGE(63, "read slab debug dump failed, reason: %s\n", strerror(errno));
    return false;
  }
  return true;
}

}  // namespace tarvo::kestrel::memstat
