// SPDX-License-Identifier: Apache-2.0
// The ELF64 reader on images built byte by byte, well formed and damaged.
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "libelf64/elf64.h"
#include "tests/support/elf_image.h"

namespace {

using android::elf64::Elf64Binary;
using android::elf64::Elf64Parser;
using kestrel_fixtures::elf_image;
using kestrel_fixtures::elf_load;

constexpr bool (*kParsers[])(const std::string&, Elf64Binary&) = {Elf64Parser::ParseElfFile, Elf64Parser::ParseElfNames, Elf64Parser::ParseElfHeaders};

// The image as a file in memory, named by its /proc/self/fd path; each call replaces the last.
std::string file_of(const std::string& bytes) {
  static const int fd = memfd_create("elf", MFD_CLOEXEC);
  EXPECT_TRUE(ftruncate(fd, 0) == 0 && pwrite(fd, bytes.data(), bytes.size(), 0) == ssize_t(bytes.size()));
  return "/proc/self/fd/" + std::to_string(fd);
}

const std::vector<Elf64_Phdr> kPhdrs = {
    {.p_type = PT_PHDR, .p_align = 8}, {.p_type = PT_INTERP, .p_align = 1},
    elf_load(4096), elf_load(16384), elf_load(65536), {.p_type = PT_DYNAMIC, .p_align = 8}};

// Writes value over the image at `at`; sh() gives where a field of a section header lies, the
// table being at the end of the image.
template <typename T>
std::function<void(std::string&)> poke(size_t at, T value) {
  return [=](std::string& b) { memcpy(b.data() + at, &value, sizeof(value)); };
}
size_t sh(int index, size_t field) { return elf_image(kPhdrs).size() - (4 - index) * sizeof(Elf64_Shdr) + field; }

TEST(Elf64Parser, ReadsHeadersInFileOrderAndNamedSections) {
  const std::string file = file_of(elf_image(kPhdrs));
  Elf64Binary bin, names;
  ASSERT_TRUE(Elf64Parser::ParseElfFile(file, bin) && Elf64Parser::ParseElfNames(file, names));
  EXPECT_TRUE(bin.phdrs.size() == 6 && memcmp(bin.phdrs.data(), kPhdrs.data(), 6 * sizeof(Elf64_Phdr)) == 0);
  std::vector<std::string> seen;  // name=contents/declared size; NOBITS has nothing in the file
  for (const auto& sc : bin.sections) seen.push_back(sc.name + "=" + std::string(sc.data.begin(), sc.data.end()) + "/" + std::to_string(sc.size));
  EXPECT_EQ(seen, (std::vector<std::string>{"=/0", ".shstrtab=" + kestrel_fixtures::kElfNames + "/22",
                                            ".text=" + kestrel_fixtures::kElfText + "/3", ".bss=/4096"}));
  seen.clear();
  for (const auto& sc : names.sections) seen.push_back(sc.name + "=" + std::to_string(sc.data.size()) + "/" + std::to_string(sc.size));
  EXPECT_EQ(seen, (std::vector<std::string>{"=0/0", ".shstrtab=0/22", ".text=0/3", ".bss=0/4096"}));
}

// Each case damages (or merely oddly shapes) the well-formed image; every entry point must give
// the same answer, without a message and without reading outside the file. A section name that
// runs off its string table is a bug check that ends the process.
TEST(Elf64ParserDeathTest, RefusesDamagedFilesAndAcceptsOddButSoundOnes) {
  using E = Elf64_Ehdr;
  using S = Elf64_Shdr;
  enum { kRefused, kRead, kAborts };
  const char* kCheck = "parse\\.cpp:[0-9]+ Check failed: .*memchr\\(&st\\[nameIdx\\], 0, sStrTblPtr\\.size - nameIdx\\)";
  const size_t end = elf_image(kPhdrs).size();
  const auto cut = [](size_t size) { return [=](std::string& b) { b.resize(size); }; };
  struct Case { const char* what; std::vector<std::function<void(std::string&)>> damage; int outcome; size_t phdrs = 0, shdrs = 0; };
  const Case cases[] = {
      {"no sections, stray e_shoff", {poke<Elf64_Half>(offsetof(E, e_shnum), 0), poke<Elf64_Off>(offsetof(E, e_shoff), ~0ull)}, kRead, 6, 0},
      {"no section-name table", {poke<Elf64_Half>(offsetof(E, e_shstrndx), SHN_UNDEF)}, kRead, 6, 4},
      {"NOBITS beyond the end", {poke<Elf64_Off>(sh(3, offsetof(S, sh_offset)), ~0ull)}, kRead, 6, 4},
      {"32-bit class", {poke<char>(EI_CLASS, ELFCLASS32)}, kRefused},
      {"header cut short", {cut(40)}, kRefused},
      {"program headers cut short", {cut(64 + 56 * 3)}, kRefused},
      {"section headers cut short", {cut(end - 1)}, kRefused},
      {"e_phoff wraps around", {poke<Elf64_Off>(offsetof(E, e_phoff), ~0ull - 63)}, kRefused},
      {"e_shstrndx out of range", {poke<Elf64_Half>(offsetof(E, e_shstrndx), 4)}, kRefused},
      {"section past the end", {poke<Elf64_Off>(sh(2, offsetof(S, sh_offset)), end)}, kRefused},
      // Sound, but it would cost its size in memory.
      {"name table over 16 MiB", {poke<Elf64_Xword>(sh(1, offsetof(S, sh_size)), 17 << 20), cut(end + (17 << 20))}, kRefused},
      {"sections overlap", {poke<Elf64_Off>(sh(2, offsetof(S, sh_offset)), 0), poke<Elf64_Xword>(sh(2, offsetof(S, sh_size)), end)}, kRefused},
      {"name table loses the zero ending .bss", {poke<Elf64_Xword>(sh(1, offsetof(S, sh_size)), 21)}, kAborts},
      {"name index past the table", {poke<Elf64_Word>(sh(2, offsetof(S, sh_name)), 1000)}, kAborts},
  };
  for (const Case& c : cases) {
    std::string bytes = elf_image(kPhdrs);
    for (const auto& damage : c.damage) damage(bytes);
    const std::string file = file_of(bytes);
    for (auto parse : kParsers) {
      Elf64Binary bin;
      if (c.outcome == kAborts && parse != Elf64Parser::ParseElfHeaders) {
        EXPECT_DEATH(parse(file, bin), kCheck) << c.what;
        continue;
      }
      testing::internal::CaptureStderr();
      // The header-only walk refuses a broken name instead of aborting.
      EXPECT_EQ(parse(file, bin), c.outcome == kRead) << c.what;
      EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << c.what;
      if (c.outcome == kRead) {
        EXPECT_EQ(std::make_pair(bin.phdrs.size(), bin.shdrs.size()), std::make_pair(c.phdrs, c.shdrs)) << c.what;
      }
    }
  }
}

}  // namespace
