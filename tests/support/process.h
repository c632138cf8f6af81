// SPDX-License-Identifier: Apache-2.0
// The process runner of the end-to-end tests: runs the shipped kestrel binary (or any program)
// as a child, under the driver simulator (LD_PRELOAD) with a scenario, with its output on pipes
// or on a pseudo-terminal, and returns what it printed and how it ended. process.cpp also holds
// the sandbox of sandbox.h, which launches its children the same way.
#pragma once

#include <string>
#include <vector>

namespace kestrel_e2e {

struct Result {
  std::string out;     // standard output (the terminal's output when run on a pty)
  std::string err;     // standard error
  int status = -1;     // exit status, or 128 + signal number when killed by a signal
  bool timed_out = false;  // killed after 20 s
};

struct RunOptions {
  // Scenario text for the driver simulator. Empty: the simulator's host mode. The simulator is
  // loaded unless `simulator` is false.
  std::string scenario;
  bool simulator = true;
  std::vector<std::string> env;      // extra "NAME=value" entries, LD_PRELOAD too; TZ=UTC is set
  bool pty = false;                  // standard output on a pseudo-terminal of pty_cols columns
  unsigned pty_cols = 80;
};

// Paths of the build under test, as the build defines them for the end-to-end tests.
inline std::string kestrel_binary() { return KESTREL_BINARY; }
inline std::string simulator_library() { return KESTREL_SIM_LIBRARY; }
inline std::string fd_report_library() { return KESTREL_FD_REPORT_LIBRARY; }  // reports held descriptors
inline std::string fixtures_dir() { return KESTREL_FIXTURES; }

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

// The whole content of a file, or "" when it cannot be read.
std::string read_text(const std::string& path);

}  // namespace kestrel_e2e
