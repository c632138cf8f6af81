// SPDX-License-Identifier: Apache-2.0
// The allocator hook answering the shipped kestrel: the VM test's target program runs with the
// hook and the simulator preloaded, and both it and kestrel share the simulator's log file, so
// the hook's records reach `malloc-debug -d` and `logger` as they would through the driver.
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/process.h"

namespace kestrel_e2e {
namespace {

// The target, started with the hook; its standard output is a pipe we read lines from.
class Target {
 public:
  Target(const std::string& scenario_path, const std::string& mode) {
    int out[2];
    if (pipe2(out, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      dup2(out[1], STDOUT_FILENO);
      setenv("LD_PRELOAD", (simulator_library() + " " + KESTREL_HOOK_LIBRARY).c_str(), 1);
      setenv("KESTREL_SIM_SCENARIO", scenario_path.c_str(), 1);
      execl(KESTREL_HOOK_TARGET, KESTREL_HOOK_TARGET, mode.c_str(), nullptr);
      _exit(127);
    }
    close(out[1]);
    out_ = fdopen(out[0], "r");
  }
  ~Target() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    if (out_ != nullptr) fclose(out_);
  }
  std::string line() {
    char buf[64] = {};
    return out_ != nullptr && fgets(buf, sizeof(buf), out_) != nullptr ? buf : "";
  }
  std::string pid() const { return std::to_string(pid_); }
  // The program name the success lines show: under qemu-user the kernel shows the emulator's.
  std::string shown_name() const {
#ifdef KESTREL_TESTS_UNDER_EMULATION
    std::ifstream cmdline("/proc/" + pid() + "/cmdline");
    std::string name;
    std::getline(cmdline, name, '\0');
    return name;
#else
    return KESTREL_HOOK_TARGET;
#endif
  }
  bool alive() const { return waitpid(pid_, nullptr, WNOHANG) == 0; }

 private:
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
};

// The dump's group lines and the frames in the target itself, which name its functions; the
// addresses and the offsets inside functions differ from build to build. The answer to the
// enable request shows too when it was written in the second the dump began.
std::string target_part(const std::string& dump) {
  static const std::regex frame("  (#\\d\\d) pc [0-9a-f]{16}  " KESTREL_HOOK_TARGET " \\((\\w+)\\+0x[0-9a-f]+\\)");
  std::string out;
  size_t start = 0;
  for (size_t end; (end = dump.find('\n', start)) != std::string::npos; start = end + 1) {
    const std::string line = dump.substr(start, end - start);
    if (line.starts_with("  #")) {
      std::smatch m;
      if (std::regex_match(line, m, frame) && m[2] != "_start") out += "  " + m.str(1) + " " + m.str(2) + "\n";
    } else if (!line.starts_with("enabled: ")) {
      out += line + "\n";
    }
  }
  return out;
}

// Starts recording in the target and has it allocate from its two sites.
void enable_then_allocate(Target* target, const std::string& scenario) {
  ASSERT_EQ(target->line(), "ready\n");
  Result r = run_kestrel({"malloc-debug", "-e", target->pid()}, {.scenario = scenario});
  EXPECT_EQ(r.out, target->shown_name() + ":" + target->pid() +
                       " enable malloc debug successfully\n");
  kill(std::stoi(target->pid()), SIGUSR1);
  ASSERT_EQ(target->line(), "allocated\n");
}

// Every request is answered: the dump lists both call sites with their totals and ends the
// command on its END record; the other requests show in the driver's log; the target lives on.
TEST(MallocHook, AnswersEveryRequest) {
  TempDir dir;
  const std::string scenario = "log-file " + dir.file("log") + "\n";
  Target target(dir.write("scenario", scenario), "");
  ASSERT_NO_FATAL_FAILURE(enable_then_allocate(&target, scenario));
  const std::string pid = target.pid();
  auto request = [&](const std::string& option) {
    Result r = run_kestrel({"malloc-debug", option, pid}, {.scenario = scenario});
    EXPECT_TRUE(target.alive()) << option;
    return r;
  };
  Result r = request("-d");
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(target_part(r.out),
            "155000 bytes in 8 allocations from 2 backtraces\n"
            "120000 bytes in 3 allocations\n"
            "  #00 site_a\n"
            "  #01 main\n"
            "35000 bytes in 5 allocations\n"
            "  #00 site_b\n"
            "  #01 main\n"
            "END of malloc debug dump: the recorder holds 8 allocations and 3 backtraces in "
            "10752 KiB; 0 allocations not recorded\n");
  for (const char* option : {"-s", "-p", "-P", "-D"}) {
    EXPECT_EQ(request(option).status, 0) << option;
  }
  // The log as `logger` shows it, from a reader that starts at the oldest record.
  r = run_kestrel({"logger"}, {.scenario = scenario, .timeout_ms = 1500});
  std::string answers;
  static const std::regex prefix("^\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3} +" + pid +
                                 " +\\d+ I malloc_debug:");
  static const std::regex number("\\b\\d+ bytes");
  size_t start = 0;
  for (size_t end; (end = r.out.find('\n', start)) != std::string::npos; start = end + 1) {
    std::string line = r.out.substr(start, end - start);
    std::smatch m;
    if (!std::regex_search(line, m, prefix)) {
      ADD_FAILURE() << line;
      continue;
    }
    line = m.suffix();
    if (line.starts_with("<malloc version=") || line.starts_with("enabled") ||
        line.starts_with("purge") || line.starts_with("disabled")) {
      answers += std::regex_replace(line, number, "N bytes") + "\n";
    }
  }
  EXPECT_EQ(answers,
            "enabled: backtraces of up to 32 frames, tables of 10752 KiB\n"
            "<malloc version=\"1\">\n"
            "purge: malloc_trim returned N bytes to the system\n"
            "purge-all: malloc_trim returned N bytes to the system\n"
            "disabled: 10752 KiB of tables released\n");
}

// Threads allocating through every allocation function while the main thread forks: nothing
// hangs or crashes, the children finish, and the dump still holds both sites exactly.
TEST(MallocHook, SurvivesThreadsAndFork) {
#ifdef KESTREL_TESTS_UNDER_EMULATION
  GTEST_SKIP() << "fork in a threaded program can hang qemu-user itself; the VM check covers arm64";
#endif
  TempDir dir;
  const std::string scenario = "log-file " + dir.file("log") + "\n";
  Target target(dir.write("scenario", scenario), "storm");
  ASSERT_NO_FATAL_FAILURE(enable_then_allocate(&target, scenario));
  Result r = run_kestrel({"malloc-debug", "-d", target.pid()}, {.scenario = scenario});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string sites = target_part(r.out);
  EXPECT_NE(sites.find("120000 bytes in 3 allocations\n  #00 site_a\n  #01 main\n"),
            std::string::npos) << sites;
  EXPECT_NE(sites.find("35000 bytes in 5 allocations\n  #00 site_b\n  #01 main\n"),
            std::string::npos) << sites;
  EXPECT_TRUE(target.alive());
}

}  // namespace
}  // namespace kestrel_e2e
