// SPDX-License-Identifier: Apache-2.0
// Driver access. Both descriptors are opened once and kept for the life of the process; the
// read-only one carries the log stream and the statistics requests, the write-only one the scene
// requests. Interrupted opens and requests are reissued. Log readers match the failures below as
// "util.cpp:<line>", the name and numbers of their published form.
#include "libs/kestrel/device.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "libs/kestrel/driver.h"
#include "platform/log.h"

namespace tarvo::kestrel::util {

namespace {

constexpr char kLogName[] = "util.cpp";

// Plain integers without a lock: only the main thread of any command touches the device.
int g_read_fd = -1;
int g_write_fd = -1;

int open_device(int flags) { return TEMP_FAILURE_RETRY(open(driver::kDevicePath, flags | O_CLOEXEC)); }

}  // namespace

int KestrelFd() {
  if (g_read_fd >= 0) return g_read_fd;
  g_read_fd = open_device(O_RDONLY);
  if (g_read_fd < 0) {
    KLOGE_AS(kLogName, 26, "Failed to open %s:%s\n", driver::kDevicePath, strerror(errno));
  }
  return g_read_fd;
}

bool KestrelVersion(int& major, int& minor) {
  int fd = KestrelFd();
  if (fd < 0) return false;
  int ret = KestrelRequest(fd, driver::kGetVersion, 0);
  if (ret < 0) {
    KLOGE_AS(kLogName, 51, "Failed to ioctl %s\n", strerror(errno));
    return false;
  }
  major = static_cast<uint16_t>(static_cast<unsigned>(ret) >> 16);
  minor = static_cast<uint16_t>(ret);
  return true;
}

bool KestrelSetOrClearScene(unsigned long long scene, bool set) {
  if (scene >= 2) {
    KLOGE_AS(kLogName, 65, "invalid scene %llu\n", scene);
    return false;
  }
  if (g_write_fd < 0) {
    g_write_fd = open_device(O_WRONLY);
    if (g_write_fd < 0) {
      KLOGE_AS(kLogName, 38, "Failed to open %s:%s\n", driver::kDevicePath, strerror(errno));
      return false;
    }
  }
  driver::scene_request req = {};
  req.scene = scene;
  int ret = KestrelRequest(g_write_fd, set ? driver::kSetScene : driver::kClearScene,
                           reinterpret_cast<unsigned long>(&req));
  if (ret < 0) {
    KLOGE_AS(kLogName, 79, "Failed to ioctl %s\n", strerror(errno));
    return false;
  }
  return true;
}

int KestrelRequest(int fd, unsigned long request, unsigned long arg) {
  return TEMP_FAILURE_RETRY(ioctl(fd, request, arg));
}

}  // namespace tarvo::kestrel::util
