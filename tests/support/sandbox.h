// SPDX-License-Identifier: Apache-2.0
// The sandbox of the end-to-end tests (made and entered in process.cpp): a private mount
// namespace and a chroot laid out with fixture files, for commands that read and write fixed
// absolute paths.
#pragma once

#include <sys/types.h>

#include "tests/support/process.h"

namespace kestrel_e2e {

// A temporary root for commands that use fixed absolute paths. The host's system folders and the
// build tree are bind-mounted read-only at their own paths; /proc is a fixture folder of plain
// files, with self and thread-self reaching the real procfs.
class Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  // True when this machine can run sandboxes (root, mount namespaces); else why not.
  static bool Supported(std::string* why);

  std::string host_path(const std::string& inside) const { return root_ + inside; }

  void write_file(const std::string& inside, const std::string& content, mode_t mode = 0644);
  void make_dir(const std::string& inside, mode_t mode = 0755);
  void make_symlink(const std::string& target, const std::string& inside);
  std::string read_file(const std::string& inside) const;

  // Runs `kestrel args...` inside. A scenario is written to /tmp inside the root, so trace
  // paths in it name files inside the sandbox too (read them back with read_file). A kestrel
  // run directly keeps leak detection: its own /proc/<pid> is a link to the real one.
  Result run(const std::vector<std::string>& args, const RunOptions& opts = {});
  // Runs any program inside (argv[0] is its path inside the sandbox).
  Result run_program(const std::vector<std::string>& argv, const RunOptions& opts = {});

 private:
  std::string root_;
};

// Skips the current test with a one-line reason when sandboxes cannot run here.
#define KESTREL_REQUIRE_SANDBOX()                                       \
  do {                                                                  \
    std::string why_;                                                   \
    if (!::kestrel_e2e::Sandbox::Supported(&why_)) GTEST_SKIP() << why_; \
  } while (0)

}  // namespace kestrel_e2e
