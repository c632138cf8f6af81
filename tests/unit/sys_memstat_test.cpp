// The kmalloc debug switches, run on plain files in a temporary folder standing in for
// /proc/tarvo_healthinfo: what is written, what is left alone and the exact log lines.
#include <errno.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "libs/kestrel/sys-memstat.h"
#include "tests/support/log_capture.h"

namespace {

using namespace std::string_literals;
using tarvo::kestrel::memstat::kSlabCaches;
using tarvo::kestrel::memstat::read_slab_debug_dump;
using tarvo::kestrel::memstat::slab_debug_create;
using tarvo::kestrel::memstat::slab_debug_enable;
using tarvo::kestrel::memstat::SlabDebugPaths;

class SlabDebugTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string dir = dir_.path;
    paths_.enable = dir + "/kmalloc_debug_enable";
    paths_.create = dir + "/kmalloc_debug_create";
    paths_.dump = dir + "/kmalloc_debug";
    kestrel_test::clear_log();
  }

  static void put(const std::string& path, const std::string& content) {
    ASSERT_TRUE(android::base::WriteStringToFile(content, path));
  }
  static std::string get(const std::string& path) {
    std::string content;
    if (!android::base::ReadFileToString(path, &content)) return "<missing>";
    return content;
  }
  static std::vector<std::string> log_lines() {
    std::vector<std::string> lines;
    for (const kestrel_test::LogLine& line : kestrel_test::logged()) {
      EXPECT_EQ(line.priority, 6);
      EXPECT_EQ(line.tag, "kestrel");
      lines.push_back(line.message);
    }
    return lines;
  }

  TemporaryDir dir_;
  SlabDebugPaths paths_;
};

TEST_F(SlabDebugTest, EnableWritesOnlyAChangeOfState) {
  struct Case {
    const char* before;  // null: no enable file
    bool enable;
    bool ok;
    const char* after;
    const char* log;  // null: nothing logged
  };
  const Case cases[] = {
      {"0", true, true, "1", nullptr},
      {"1\n", false, true, "0", nullptr},
      {"0\n", false, false, "0\n", "sys-memstat.cpp:34 write slab debug enable failed, reason: Success\n"},
      // Already on is a failure: a second daemon start leaves the slab monitor off.
      {"1\n", true, false, "1\n", "sys-memstat.cpp:34 write slab debug enable failed, reason: Success\n"},
      {"", true, false, "", "sys-memstat.cpp:27 read slab debug enable failed, reason: Success\n"},
      {nullptr, true, false, "<missing>",
       "sys-memstat.cpp:27 read slab debug enable failed, reason: No such file or directory\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.before ? c.before : "<missing>") + (c.enable ? " enable" : " disable"));
    unlink(paths_.enable.c_str());
    if (c.before) put(paths_.enable, c.before);
    kestrel_test::clear_log();
    errno = 0;
    EXPECT_EQ(slab_debug_enable(c.enable, paths_), c.ok);
    EXPECT_EQ(get(paths_.enable), c.after);
    EXPECT_EQ(log_lines(), c.log ? std::vector<std::string>{c.log} : std::vector<std::string>{});
  }
}

// The switches are kernel files: a symbolic link in their place is refused, not followed, and
// the caller still finds the reason in errno after the log line.
TEST_F(SlabDebugTest, EnableNeverFollowsASymbolicLink) {
  put(paths_.dump, "0");
  ASSERT_EQ(symlink(paths_.dump.c_str(), paths_.enable.c_str()), 0);
  EXPECT_FALSE(slab_debug_enable(true, paths_));
  EXPECT_EQ(errno, ELOOP);
  EXPECT_EQ(log_lines(), std::vector<std::string>{
                             "sys-memstat.cpp:27 read slab debug enable failed, reason: Too many "
                             "levels of symbolic links\n"});
  EXPECT_EQ(get(paths_.dump), "0");
}

TEST_F(SlabDebugTest, CreateAcceptsOnlyTheEightSizeCaches) {
  for (const char* cache : kSlabCaches) {
    EXPECT_TRUE(slab_debug_create(cache, paths_)) << cache;
    EXPECT_EQ(get(paths_.create), cache);
  }
  unlink(paths_.create.c_str());
  for (const char* bad : {"640", "6", "16384", "", "64\n", " 64"}) {
    kestrel_test::clear_log();
    EXPECT_FALSE(slab_debug_create(bad, paths_)) << bad;
    EXPECT_EQ(log_lines(), std::vector<std::string>{"sys-memstat.cpp:50 invalid slab name " +
                                                    std::string(bad) + "\n"});
  }
  EXPECT_EQ(get(paths_.create), "<missing>");
}

TEST_F(SlabDebugTest, CreateWriteFailureIsSilent) {
  paths_.create = std::string(dir_.path) + "/absent/kmalloc_debug_create";
  EXPECT_FALSE(slab_debug_create("64", paths_));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log_lines(), std::vector<std::string>{});
}

// The kernel answers EEXIST for a cache it already debugs. A plain file cannot, so the child
// process makes every creating open fail with EEXIST through a seccomp filter.
TEST_F(SlabDebugTest, CreateOfACacheAlreadyDebuggedSucceeds) {
  auto run_with_eexist = [this] {
    struct sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_openat, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_CREAT, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EEXIST),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    struct sock_fprog prog = {.len = sizeof(filter) / sizeof(filter[0]), .filter = filter};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) _exit(2);
    if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &prog) != 0) _exit(3);
    bool ok = slab_debug_create("256", paths_);
    _exit(ok && errno == EEXIST ? 0 : 1);
  };
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(run_with_eexist(), ::testing::ExitedWithCode(0), "");
  EXPECT_EQ(get(paths_.create), "<missing>");
}

TEST_F(SlabDebugTest, DumpIsReadVerbatim) {
  const std::string dump = "kmalloc-64 alloc 832 from kernfs_fop_open+0xd4/0x3f4\n\0tail"s;
  put(paths_.dump, dump);
  std::string out;
  EXPECT_TRUE(read_slab_debug_dump(&out, paths_));
  EXPECT_EQ(out, dump);

  unlink(paths_.dump.c_str());
  EXPECT_FALSE(read_slab_debug_dump(&out, paths_));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(log_lines(), std::vector<std::string>{"sys-memstat.cpp:63 read slab debug dump failed, "
                                                  "reason: No such file or directory\n"});
}

}  // namespace
