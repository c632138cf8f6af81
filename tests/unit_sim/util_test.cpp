// Driver access against the simulator. KestrelFd caches its descriptor for the life of the
// process, so each case runs in a freshly started copy of this binary (a death test in the
// threadsafe style) with its own scenario, and reports a transcript on standard error: what the
// calls returned, what they logged and what reached the driver.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "libs/kestrel/util.h"
#include "tests/support/log_capture.h"

namespace {

using namespace tarvo::kestrel::util;

struct UtilCase {
  const char* name;
  const char* scenario;  // a trace line is added
  std::string (*calls)();
  const char* transcript;
};

std::string fd_calls(int n) {
  std::string out;
  int first = -2;
  for (int i = 0; i < n; i++) {
    int fd = KestrelFd();
    if (first == -2) first = fd;
    out += fd < 0 ? "KestrelFd -1\n" : fd == first ? "KestrelFd cached\n" : "KestrelFd other\n";
  }
  return out;
}

std::string version_call() {
  int major = -1, minor = -1;
  bool ok = KestrelVersion(major, minor);
  return "KestrelVersion " + std::string(ok ? "true " : "false ") + std::to_string(major) + "." +
         std::to_string(minor) + "\n";
}

std::string scene_calls(std::initializer_list<std::pair<unsigned long long, bool>> calls) {
  std::string out;
  for (auto [scene, set] : calls) {
    bool ok = KestrelSetOrClearScene(scene, set);
    out += "scene " + std::to_string(scene) + (set ? " set " : " clear ") + (ok ? "true\n" : "false\n");
  }
  return out;
}

const UtilCase kCases[] = {
    {"AbsentDeviceFailsAndLogsEveryCall", "device absent\n", [] { return fd_calls(2); },
     "KestrelFd -1\nKestrelFd -1\n"
     "log 6 kestrel util.cpp:26 Failed to open /dev/kestrel:No such file or directory\n"
     "log 6 kestrel util.cpp:26 Failed to open /dev/kestrel:No such file or directory\n"
     "trace\nopen O_RDONLY\nopen O_RDONLY\n"},
    {"DescriptorIsOpenedOnce", "", [] { return fd_calls(3); },
     "KestrelFd cached\nKestrelFd cached\nKestrelFd cached\ntrace\nopen O_RDONLY\n"},
    {"VersionSplitsMajorAndMinor", "version 131077\n", version_call,
     "KestrelVersion true 2.5\ntrace\nopen O_RDONLY\n0xFA01\n"},
    {"InterruptedOpenAndRequestAreReissued", "eintr open\neintr 0xFA01\n", version_call,
     "KestrelVersion true 1.0\ntrace\nopen O_RDONLY\nopen O_RDONLY\n0xFA01\n0xFA01\n"},
    {"FailedVersionRequestIsLogged", "fail 0xFA01 ENOTTY\n", version_call,
     "KestrelVersion false -1.-1\n"
     "log 6 kestrel util.cpp:51 Failed to ioctl Inappropriate ioctl for device\n"
     "trace\nopen O_RDONLY\n0xFA01\n"},
    {"VersionWithoutDeviceTouchesNothing", "device absent\n", version_call,
     "KestrelVersion false -1.-1\n"
     "log 6 kestrel util.cpp:26 Failed to open /dev/kestrel:No such file or directory\n"
     "trace\nopen O_RDONLY\n"},
    {"SceneTwoIsRefusedWithoutOpening", "", [] { return scene_calls({{2, true}}); },
     "scene 2 set false\nlog 6 kestrel util.cpp:65 invalid scene 2\ntrace\n"},
    {"SceneSetAndClearShareOneWriteDescriptor", "",
     [] { return scene_calls({{1, true}, {0, false}}); },
     "scene 1 set true\nscene 0 clear true\ntrace\nopen O_WRONLY\n0xFA02 scene=1\n0xFA03 scene=0\n"},
    {"InterruptedSceneCallsAreReissued", "eintr open-write\neintr 0xFA03\n",
     [] { return scene_calls({{1, false}}); },
     "scene 1 clear true\ntrace\nopen O_WRONLY\nopen O_WRONLY\n0xFA03 scene=1\n0xFA03 scene=1\n"},
    {"FailedSceneRequestIsLogged", "fail 0xFA02 EIO\n", [] { return scene_calls({{1, true}}); },
     "scene 1 set false\nlog 6 kestrel util.cpp:79 Failed to ioctl Input/output error\n"
     "trace\nopen O_WRONLY\n0xFA02 scene=1\n"},
    {"FailedWriteOpenIsLoggedAndRetriedNextTime", "fail open-write EACCES\n",
     [] { return scene_calls({{0, true}, {0, true}}); },
     "scene 0 set false\nscene 0 set false\n"
     "log 6 kestrel util.cpp:38 Failed to open /dev/kestrel:Permission denied\n"
     "log 6 kestrel util.cpp:38 Failed to open /dev/kestrel:Permission denied\n"
     "trace\nopen O_WRONLY\nopen O_WRONLY\n"},
};

void PrintTo(const UtilCase& c, std::ostream* os) { *os << c.name; }

std::string read_text(const std::string& path) {
  std::string text;
  FILE* f = fopen(path.c_str(), "re");
  if (f == nullptr) return text;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), f)) > 0) text.append(buf, n);
  fclose(f);
  return text;
}

// Runs in the fresh process: the calls, then the log and the trace, on standard error.
[[noreturn]] void run_case(const UtilCase& c, const std::string& dir) {
  std::string transcript = c.calls();
  for (const kestrel_test::LogLine& line : kestrel_test::logged()) {
    transcript += "log " + std::to_string(line.priority) + " " + line.tag + " " + line.message;
  }
  transcript += "trace\n" + read_text(dir + "/trace");
  unlink((dir + "/trace").c_str());
  unlink((dir + "/scenario").c_str());
  rmdir(dir.c_str());
  fputs(transcript.c_str(), stderr);
  fflush(stderr);
  _exit(0);
}

class DeviceAccess : public testing::TestWithParam<UtilCase> {};

TEST_P(DeviceAccess, Transcript) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const UtilCase& c = GetParam();
  // Both this process and the fresh one make their own folder; each removes its own.
  char templ[] = "/tmp/kestrel-util-test-XXXXXX";
  ASSERT_NE(mkdtemp(templ), nullptr);
  std::string dir = templ;
  std::string scenario = std::string(c.scenario) + "trace " + dir + "/trace\n";
  FILE* f = fopen((dir + "/scenario").c_str(), "we");
  ASSERT_NE(f, nullptr);
  fputs(scenario.c_str(), f);
  fclose(f);
  setenv("KESTREL_SIM_SCENARIO", (dir + "/scenario").c_str(), 1);

  EXPECT_EXIT(run_case(c, dir), testing::ExitedWithCode(0), testing::Eq(std::string(c.transcript)));

  unsetenv("KESTREL_SIM_SCENARIO");
  unlink((dir + "/scenario").c_str());
  rmdir(dir.c_str());
}

INSTANTIATE_TEST_SUITE_P(Simulator, DeviceAccess, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<UtilCase>& p) { return p.param.name; });

}  // namespace
