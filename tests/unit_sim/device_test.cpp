// SPDX-License-Identifier: Apache-2.0
// Driver access against the simulator. KestrelFd caches its descriptor for the life of the
// process, so each case runs in a freshly started copy of this binary (a death test in the
// threadsafe style) with its own scenario, and reports a transcript on standard error: what the
// calls returned, what they logged and what reached the driver.
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "libs/kestrel/device.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarvo::kestrel::util;

struct UtilCase {
  const char *name, *scenario;  // a trace line is added to the scenario
  void (*calls)();              // they write what they got to `said`
  std::string transcript;
};

std::string said;

// The descriptor is cached: the trace shows how often the device was opened.
void fd_calls(int n) {
  while (n-- > 0) said += KestrelFd() < 0 ? "KestrelFd -1\n" : "KestrelFd ok\n";
}

void version_call() {
  int major = -1, minor = -1;
  bool ok = KestrelVersion(major, minor);
  said += "KestrelVersion " + std::to_string(ok) + " " + std::to_string(major) + "." + std::to_string(minor) + "\n";
}

void scene(unsigned long long n, bool set) {
  said += "scene " + std::to_string(n) + (set ? " set " : " clear ") + std::to_string(KestrelSetOrClearScene(n, set)) + "\n";
}

const std::string kAbsent = "log 6 kestrel util.cpp:26 Failed to open /dev/kestrel:No such file or directory\n";
const UtilCase kCases[] = {
    {"AbsentDeviceFailsAndLogsEveryCall", "device absent\n", [] { fd_calls(1); version_call(); },
     "KestrelFd -1\nKestrelVersion 0 -1.-1\n" + kAbsent + kAbsent + "trace\nopen O_RDONLY\nopen O_RDONLY\n"},
    {"SceneCallsShareOneWriteDescriptorAndAreReissued", "eintr open-write\neintr 0xFA03\n",
     [] { scene(1, true); scene(0, false); },
     "scene 1 set 1\nscene 0 clear 1\n"
     "trace\nopen O_WRONLY\nopen O_WRONLY\n0xFA02 scene=1\n0xFA03 scene=0\n0xFA03 scene=0\n"},
    // Interrupted version requests are reissued: Version.AsksTheDriver in the end-to-end tests.
    {"OneReadDescriptorServesEveryCallAndFailedRequestsAreLogged", "fail 0xFA01 ENOTTY\nfail 0xFA02 EIO\n",
     [] { fd_calls(2); version_call(); scene(1, true); },
     "KestrelFd ok\nKestrelFd ok\nKestrelVersion 0 -1.-1\nscene 1 set 0\n"
     "log 6 kestrel util.cpp:51 Failed to ioctl Inappropriate ioctl for device\n"
     "log 6 kestrel util.cpp:79 Failed to ioctl Input/output error\n"
     "trace\nopen O_RDONLY\n0xFA01\nopen O_WRONLY\n0xFA02 scene=1\n"},
    {"SceneTwoIsRefusedWithoutOpeningAndAFailedOpenIsRetried", "fail open-write EACCES\n",
     [] { scene(2, true); scene(0, true); scene(0, true); },
     "scene 2 set 0\nscene 0 set 0\nscene 0 set 0\n"
     "log 6 kestrel util.cpp:65 invalid scene 2\n"
     "log 6 kestrel util.cpp:38 Failed to open /dev/kestrel:Permission denied\n"
     "log 6 kestrel util.cpp:38 Failed to open /dev/kestrel:Permission denied\n"
     "trace\nopen O_WRONLY\nopen O_WRONLY\n"},
};

// ctest lists each case with what this prints; without it, the bytes of the struct.
void PrintTo(const UtilCase& c, std::ostream* os) { *os << c.name; }

// Runs in the fresh process: the calls, then the log and the trace, on standard error.
[[noreturn]] void run_case(const UtilCase& c, const std::string& dir) {
  c.calls();
  std::string transcript = said;
  for (const auto& l : kestrel_test::logged()) {
    transcript += "log " + std::to_string(l.priority) + " " + l.tag + " " + l.message;
  }
  std::ifstream trace(dir + "/trace");
  transcript += "trace\n" + std::string(std::istreambuf_iterator<char>(trace), {});
  std::filesystem::remove_all(dir);
  fputs(transcript.c_str(), stderr);
  _exit(0);
}

class DeviceAccess : public testing::TestWithParam<UtilCase> {};

TEST_P(DeviceAccess, Transcript) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const UtilCase& c = GetParam();
  // Both this process and the fresh one make their own folder; each removes its own.
  char templ[] = "/tmp/kestrel-util-test-XXXXXX";
  ASSERT_NE(mkdtemp(templ), nullptr);
  const std::string dir = templ;
  std::ofstream(dir + "/scenario") << c.scenario << "trace " << dir << "/trace\n";
  setenv("KESTREL_SIM_SCENARIO", (dir + "/scenario").c_str(), 1);
  EXPECT_EXIT(run_case(c, dir), testing::ExitedWithCode(0), testing::Eq(c.transcript));
  unsetenv("KESTREL_SIM_SCENARIO");
  std::filesystem::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(Simulator, DeviceAccess, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<UtilCase>& p) { return p.param.name; });

}  // namespace
