// SPDX-License-Identifier: Apache-2.0
// `kestrel utils` as shipped: the alignment check of one file, of the whole device inside a
// sandbox with its own /proc/mounts and partitions, and the scene switches against the driver
// simulator's trace of requests.
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/sandbox.h"
#include "tests/support/elf_image.h"

namespace {

using kestrel_e2e::Result;
using kestrel_e2e::TempDir;
using kestrel_fixtures::elf_image;
using kestrel_fixtures::elf_load;

const std::string kPass = "error: \nVerify align pass! (^_^)\n\n";
const std::string kFail = "\nVerify align failed! @(>.<)@\n";
const std::string kUsage = "usage: kestrel utils [options]\n    --elf-align           \n"
                           "    --set-scene           \n    --clear-scene         \n\n";

// A load segment whose every field is different, to see each printed in its place.
Elf64_Phdr text_load(uint64_t align) {
  return {.p_type = PT_LOAD, .p_flags = PF_R | PF_X, .p_offset = 0x1000, .p_vaddr = 0x201000,
          .p_paddr = 0x301000, .p_filesz = 0x1234, .p_memsz = 0x5678, .p_align = align};
}

std::string text_block(int index, uint64_t align) {
  return "Program Header " + std::to_string(index) + ":\n  Type:   0x00000001\n  Offset: 0x0000000000001000\n"
         "  VAddr:  0x0000000000201000\n  PAddr:  0x0000000000301000\n  FileSz: 0x0000000000001234\n"
         "  MemSz:  0x0000000000005678\n  Flags:  0x00000005\n  Align:  " + std::to_string(align) + "\n";
}

TEST(Utils, EachModeGivesItsExactStreamsStatusAndDriverRequests) {
  TempDir dir;
  const Elf64_Phdr phdr = {.p_type = PT_PHDR, .p_align = 8}, interp = {.p_type = PT_INTERP, .p_align = 1};
  const std::string small = dir.write("small.so", elf_image({phdr, interp, text_load(4096), text_load(4096)}));
  const std::string big = dir.write("big.so", elf_image({text_load(16384), interp, text_load(65536)}));
  const std::string mixed = dir.write("mixed.so", elf_image({text_load(65536), text_load(8192)}));
  const std::string text = dir.write("notes.txt", "#!/bin/sh\necho not an ELF file\n");
  const std::string missing = dir.file("missing.so"), not_elf = " is not a valid elf file or file does not exit.\n";
  const std::string fail = "error: Failed to set: ", wr = "open O_WRONLY\n";
  struct Case { std::vector<std::string> args; std::string out, err; int status; std::string requests; };
  const Case cases[] = {
      {{"--elf-align", small}, text_block(2, 4096) + text_block(3, 4096) + kFail, "", 255, ""},
      {{"--elf-align", big}, text_block(0, 16384) + text_block(2, 65536), kPass, 0, ""},
      {{"--elf-align", mixed}, text_block(0, 65536) + text_block(1, 8192) + kFail, "", 255, ""},
      {{"--elf-align", text}, "", "fatal: " + text + not_elf, 129, ""},
      {{"--elf-align", missing}, "", "Failed to open the file: " + missing + "\nfatal: " + missing + not_elf, 129, ""},
      {{"--set-scene", "1"}, "Set: 1 scene (^_^)\n", "", 0, wr + "0xFA02 scene=1\n"},
      {{"--clear-scene", "1"}, "Set: 0 scene (^_^)\n", "", 0, wr + "0xFA03 scene=1\n"},
      {{"--set-scene", "12"}, "", fail + "1 scene @(>.<)@\n", 255, ""},
      {{"--set-scene", "12x"}, "", "fatal: native expects a numerical value\n", 129, ""},
      {{"--set-scene"}, "", kUsage, 129, ""},
      {{}, "", kUsage, 129, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    unlink(dir.file("trace").c_str());
    std::vector<std::string> args = {"utils"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    Result r = kestrel_e2e::run_kestrel(args, {.scenario = "trace " + dir.file("trace") + "\n"});
    EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tie(c.out, c.err, c.status));
    EXPECT_EQ(dir.read("trace"), c.requests);
  }
}

// The whole-device mode walks the top directories of the partition mounts, in sorted order;
// without a mount table there is nothing to walk.
TEST(UtilsElfAlign, DeviceWalkListsShortAlignedFilesOfPartitionsOnly) {
  KESTREL_REQUIRE_SANDBOX();
  kestrel_e2e::Sandbox box;
  const std::string small = elf_image({elf_load(4096)});
  box.write_file("/vendor/lib64/libsmall.so", small, 0755);
  Result r = box.run({"utils", "--elf-align"});
  EXPECT_EQ(std::tie(r.out, r.err, r.status), std::tuple("16kB support is only required on V and later releases.\n", "", 0));

  box.write_file("/proc/mounts", kestrel_e2e::read_text(kestrel_e2e::fixtures_dir() + "/utils/mounts"));
  box.write_file("/vendor/lib64/libbig.so", elf_image({elf_load(16384), elf_load(65536)}));
  box.write_file("/vendor/lib64/README", "not an ELF file\n");
  box.write_file("/apex/com.android.vndk.v33/lib64/libvndk.so", small);
  box.write_file("/apex/com.android.runtime/lib64/bionic/libc.so",
                 elf_image({elf_load(65536), elf_load(8192), elf_load(4096)}));
  box.make_symlink("/vendor/lib64/libsmall.so", "/product/lib64/liblink.so");
  box.write_file("/data/vendor/lib/libdata.so", small);
  // "/odm" is mounted but missing, and /vendor/secret cannot be read once root gives up the
  // capabilities that read any directory: both are skipped with a message, the walk goes on.
  box.write_file("/vendor/secret/libsecret.so", small);
  ASSERT_EQ(chmod(box.host_path("/vendor/secret").c_str(), 0), 0);
  if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "no setpriv to drop capabilities";
  r = box.run_program({"/usr/bin/setpriv", "--bounding-set=-dac_override,-dac_read_search",
                       kestrel_e2e::kestrel_binary(), "utils", "--elf-align"});
  EXPECT_EQ(std::tie(r.out, r.err, r.status),
            std::tuple("16kB support is only required on V and later releases.\n"
                       "/apex/com.android.runtime/lib64/bionic/libc.so 8192\n"
                       "/vendor/lib64/libsmall.so 4096\n",
                       "error: cannot read directory /odm: No such file or directory\n"
                       "error: cannot read directory /vendor/secret: Permission denied\n", 0));
}

}  // namespace
