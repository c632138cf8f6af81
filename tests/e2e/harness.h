// SPDX-License-Identifier: Apache-2.0
// End-to-end harness: runs the shipped kestrel binary as a child process, optionally under the
// driver simulator (LD_PRELOAD) with a scenario, on a pseudo-terminal, or inside a sandbox (a
// private mount namespace and a chroot laid out with fixture files), and returns what it printed.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrel_e2e {

struct Result {
  std::string out;     // standard output (the terminal's output when run on a pty)
  std::string err;     // standard error
  int status = -1;     // exit status, or 128 + signal number when killed by a signal
  bool timed_out = false;
};

struct RunOptions {
  // Scenario text for the driver simulator. Empty: the simulator's host mode. The simulator is
  // loaded unless `simulator` is false.
  std::string scenario;
  bool simulator = true;
  std::vector<std::string> env;  // extra "NAME=value" entries; TZ=UTC is always set
  std::string stdin_data;        // written to standard input, which is then closed
  int timeout_ms = 20000;        // the child is killed after this long (timed_out set)
  bool pty = false;              // standard output on a pseudo-terminal of pty_cols columns
  unsigned pty_cols = 80;
  unsigned pty_rows = 24;
};

// Paths of the build under test.
std::string kestrel_binary();
std::string simulator_library();
std::string simulator_wrapper();  // tools/kestrel-sim/kestrel-sim as the build copied it
std::string fixtures_dir();

// Runs `kestrel args...`.
Result run_kestrel(const std::vector<std::string>& args, const RunOptions& opts = {});

// Runs any program the same way (argv[0] is the program path).
Result run_program(const std::vector<std::string>& argv, const RunOptions& opts = {});

// A fresh folder under /tmp, removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  // Writes `content` to file(name) and returns that path.
  std::string write(const std::string& name, const std::string& content) const;
  // The content of file(name), or "" when it cannot be read.
  std::string read(const std::string& name) const;

 private:
  std::string path_;
};

// A temporary root for commands that use fixed absolute paths. The host's system folders and the
// build tree are bind-mounted read-only at their own paths; /proc is a fixture folder of plain
// files (with self and thread-self reaching the real procfs) unless use_real_proc() is called.
class Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // True when this machine can run sandboxes (root, mount namespaces); else why not.
  static bool Supported(std::string* why);

  const std::string& root() const { return root_; }
  std::string host_path(const std::string& inside) const { return root_ + inside; }

  void write_file(const std::string& inside, const std::string& content, mode_t mode = 0644);
  void make_dir(const std::string& inside, mode_t mode = 0755);
  void make_symlink(const std::string& target, const std::string& inside);
  void use_real_proc();
  std::string read_file(const std::string& inside) const;

  // Runs `kestrel args...` inside. A scenario is written to /tmp inside the root, so trace
  // paths in it name files inside the sandbox too (read them back with read_file). A kestrel
  // run directly keeps leak detection: its own /proc/<pid>/task reaches the real procfs.
  Result run(const std::vector<std::string>& args, const RunOptions& opts = {});
  // Runs any program inside (argv[0] is its path inside the sandbox).
  Result run_program(const std::vector<std::string>& argv, const RunOptions& opts = {});

 private:
  std::string root_;
  bool real_proc_ = false;
};

// Skips the current test with a one-line reason when sandboxes cannot run here.
#define KESTREL_REQUIRE_SANDBOX()                                       \
  do {                                                                  \
    std::string why_;                                                   \
    if (!::kestrel_e2e::Sandbox::Supported(&why_)) GTEST_SKIP() << why_; \
  } while (0)

}  // namespace kestrel_e2e
