// The ELF64 reader on images built byte by byte (well formed and damaged) and on the real ELF
// files this test process is made of; and the mount table behind the whole-device walk, which
// the end-to-end tests walk in a sandbox.
#include <link.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <android-base/file.h>
#include <gtest/gtest.h>

#include "cmds/utils.h"
#include "libelf64/elf64.h"
#include "tests/fixtures/utils/elf_image.h"

namespace {

using android::elf64::Elf64Binary;
using android::elf64::Elf64Parser;
using kestrel_fixtures::elf_image;
using kestrel_fixtures::elf_load;
using kestrel_fixtures::elf_shdr_field;

using ParseFn = bool (*)(const std::string&, Elf64Binary&);
constexpr ParseFn kParsers[] = {Elf64Parser::ParseElfFile, Elf64Parser::ParseElfHeaders};

class TempDir {
 public:
  TempDir() {
    std::string tmpl = testing::TempDir() + "kestrel-elf-XXXXXX";
    path_ = mkdtemp(tmpl.data());
  }
  ~TempDir() { std::filesystem::remove_all(path_); }
  const std::string& path() const { return path_; }
  std::string write(const std::string& name, const std::string& bytes) const {
    std::string file = path_ + "/" + name;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    EXPECT_TRUE(android::base::WriteStringToFile(bytes, file)) << file;
    return file;
  }

 private:
  std::string path_;
};

template <typename T>
void poke(std::string& image, size_t at, T value) {
  memcpy(image.data() + at, &value, sizeof(value));
}

std::vector<std::string> section_names(const Elf64Binary& bin) {
  std::vector<std::string> names;
  for (const auto& sc : bin.sections) names.push_back(sc.name);
  return names;
}

const std::vector<Elf64_Phdr> kPhdrs = {
    {.p_type = PT_PHDR, .p_align = 8}, {.p_type = PT_INTERP, .p_align = 1},
    elf_load(4096), elf_load(16384), elf_load(65536), {.p_type = PT_DYNAMIC, .p_align = 8}};

TEST(Elf64Parser, ReadsHeadersInFileOrderAndNamedSections) {
  TempDir dir;
  std::string file = dir.write("lib.so", elf_image(kPhdrs));

  Elf64Binary bin;
  ASSERT_TRUE(Elf64Parser::ParseElfFile(file, bin));
  EXPECT_EQ(bin.path, file);
  ASSERT_EQ(bin.phdrs.size(), kPhdrs.size());
  EXPECT_EQ(memcmp(bin.phdrs.data(), kPhdrs.data(), kPhdrs.size() * sizeof(Elf64_Phdr)), 0);
  EXPECT_EQ(bin.shdrs.size(), 4u);
  EXPECT_EQ(section_names(bin), (std::vector<std::string>{"", ".shstrtab", ".text", ".bss"}));
  EXPECT_EQ(std::string(bin.sections[1].data.begin(), bin.sections[1].data.end()),
            kestrel_fixtures::kElfNames);
  EXPECT_EQ(std::string(bin.sections[2].data.begin(), bin.sections[2].data.end()),
            kestrel_fixtures::kElfText);
  EXPECT_TRUE(bin.sections[3].data.empty());  // NOBITS: declared 0x1000, nothing in the file
  EXPECT_EQ(bin.sections[3].size, 0x1000u);

  Elf64Binary headers;
  ASSERT_TRUE(Elf64Parser::ParseElfHeaders(file, headers));
  EXPECT_EQ(memcmp(&headers.ehdr, &bin.ehdr, sizeof(Elf64_Ehdr)), 0);
  EXPECT_EQ(headers.phdrs.size(), bin.phdrs.size());
  EXPECT_EQ(headers.shdrs.size(), bin.shdrs.size());
  EXPECT_TRUE(headers.sections.empty());
}

// Each case damages (or merely oddly shapes) the well-formed image; both entry points must give
// the same answer, without a message and without reading outside the file.
TEST(Elf64Parser, RefusesDamagedFilesAndAcceptsOddButSoundOnes) {
  struct Case {
    const char* what;
    std::function<void(std::string&)> damage;
    bool ok;
    size_t phdrs, shdrs;  // expected counts when ok
  };
  const Case cases[] = {
      {"magic is not checked", [](std::string& b) { b.replace(0, 4, "XXXX"); }, true, 6, 4},
      {"no program headers, stray e_phoff", [](std::string& b) { poke<Elf64_Half>(b, offsetof(Elf64_Ehdr, e_phnum), 0); poke<Elf64_Off>(b, offsetof(Elf64_Ehdr, e_phoff), ~0ull); }, true, 0, 4},
      {"no sections, stray e_shoff", [](std::string& b) { poke<Elf64_Half>(b, offsetof(Elf64_Ehdr, e_shnum), 0); poke<Elf64_Off>(b, offsetof(Elf64_Ehdr, e_shoff), ~0ull); }, true, 6, 0},
      {"no section-name table", [](std::string& b) { poke<Elf64_Half>(b, offsetof(Elf64_Ehdr, e_shstrndx), SHN_UNDEF); }, true, 6, 4},
      {"NOBITS beyond the end", [](std::string& b) { poke<Elf64_Off>(b, elf_shdr_field(b, 3, offsetof(Elf64_Shdr, sh_offset)), ~0ull); }, true, 6, 4},
      {"32-bit class", [](std::string& b) { b[EI_CLASS] = ELFCLASS32; }, false, 0, 0},
      {"no class", [](std::string& b) { b[EI_CLASS] = ELFCLASSNONE; }, false, 0, 0},
      {"header cut short", [](std::string& b) { b.resize(40); }, false, 0, 0},
      {"program headers cut short", [](std::string& b) { b.resize(64 + 56 * 3); }, false, 0, 0},
      {"section headers cut short", [](std::string& b) { b.pop_back(); }, false, 0, 0},
      {"huge e_phnum", [](std::string& b) { poke<Elf64_Half>(b, offsetof(Elf64_Ehdr, e_phnum), 0xffff); }, false, 0, 0},
      {"huge e_shnum", [](std::string& b) { poke<Elf64_Half>(b, offsetof(Elf64_Ehdr, e_shnum), 0xffff); }, false, 0, 0},
      {"e_phoff wraps around", [](std::string& b) { poke<Elf64_Off>(b, offsetof(Elf64_Ehdr, e_phoff), ~0ull - 63); }, false, 0, 0},
      {"e_shoff past the end", [](std::string& b) { poke<Elf64_Off>(b, offsetof(Elf64_Ehdr, e_shoff), b.size()); }, false, 0, 0},
      {"e_shstrndx out of range", [](std::string& b) { poke<Elf64_Half>(b, offsetof(Elf64_Ehdr, e_shstrndx), 4); }, false, 0, 0},
      {"section past the end", [](std::string& b) { poke<Elf64_Off>(b, elf_shdr_field(b, 2, offsetof(Elf64_Shdr, sh_offset)), b.size()); }, false, 0, 0},
      {"section size wraps around", [](std::string& b) { poke<Elf64_Xword>(b, elf_shdr_field(b, 2, offsetof(Elf64_Shdr, sh_size)), ~0ull); }, false, 0, 0},
      {"string table past the end", [](std::string& b) { poke<Elf64_Xword>(b, elf_shdr_field(b, 1, offsetof(Elf64_Shdr, sh_size)), b.size()); }, false, 0, 0},
      {"sections overlap", [](std::string& b) { poke<Elf64_Off>(b, elf_shdr_field(b, 2, offsetof(Elf64_Shdr, sh_offset)), 0); poke<Elf64_Xword>(b, elf_shdr_field(b, 2, offsetof(Elf64_Shdr, sh_size)), b.size()); }, false, 0, 0},
  };
  TempDir dir;
  for (const Case& c : cases) {
    std::string bytes = elf_image(kPhdrs);
    c.damage(bytes);
    std::string file = dir.write("damaged", bytes);
    for (ParseFn parse : kParsers) {
      Elf64Binary bin;
      testing::internal::CaptureStderr();
      bool ok = parse(file, bin);
      EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << c.what;
      ASSERT_EQ(ok, c.ok) << c.what;
      if (!ok) continue;
      EXPECT_EQ(bin.phdrs.size(), c.phdrs) << c.what;
      EXPECT_EQ(bin.shdrs.size(), c.shdrs) << c.what;
    }
  }
}

TEST(Elf64ParserDeathTest, SectionNameOutsideTheStringTableAborts) {
  TempDir dir;
  std::string unterminated = elf_image(kPhdrs);  // the table loses the zero that ends ".bss"
  poke<Elf64_Xword>(unterminated, elf_shdr_field(unterminated, 1, offsetof(Elf64_Shdr, sh_size)),
                    kestrel_fixtures::kElfNames.size() - 1);
  std::string beyond = elf_image(kPhdrs);
  poke<Elf64_Word>(beyond, elf_shdr_field(beyond, 2, offsetof(Elf64_Shdr, sh_name)), 1000);
  const char* kCheck =
      "parse\\.cpp:[0-9]+ Check failed: .*memchr\\(&st\\[nameIdx\\], 0, sStrTblPtr\\.size - nameIdx\\)";
  for (const std::string& bytes : {unterminated, beyond}) {
    std::string file = dir.write("names.so", bytes);
    for (ParseFn parse : kParsers) {
      EXPECT_DEATH({ Elf64Binary bin; parse(file, bin); }, kCheck);
    }
  }
}

// The loader mapped these very files: the program headers it reports for each must be the ones
// the reader finds in the file.
TEST(Elf64Parser, ReadsRealFilesAsTheLoaderSawThem) {
  struct Loaded {
    std::string path;
    std::vector<Elf64_Phdr> phdrs;
  };
  std::vector<Loaded> loaded;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* data) {
        std::string name = info->dlpi_name;
        if (name.empty()) name = "/proc/self/exe";
        if (name[0] == '/') {
          static_cast<std::vector<Loaded>*>(data)->push_back(
              {name, {info->dlpi_phdr, info->dlpi_phdr + info->dlpi_phnum}});
        }
        return 0;
      },
      &loaded);
  ASSERT_GE(loaded.size(), 2u);  // the test program and at least libc

  for (const Loaded& want : loaded) {
    Elf64Binary full, headers;
    ASSERT_TRUE(Elf64Parser::ParseElfFile(want.path, full)) << want.path;
    ASSERT_TRUE(Elf64Parser::ParseElfHeaders(want.path, headers)) << want.path;
    ASSERT_EQ(full.phdrs.size(), want.phdrs.size()) << want.path;
    EXPECT_EQ(memcmp(full.phdrs.data(), want.phdrs.data(), want.phdrs.size() * sizeof(Elf64_Phdr)), 0)
        << want.path;
    EXPECT_EQ(headers.shdrs.size(), full.shdrs.size()) << want.path;
    ASSERT_EQ(full.sections.size(), full.shdrs.size()) << want.path;
    EXPECT_EQ(full.sections.at(full.ehdr.e_shstrndx).name, ".shstrtab") << want.path;
    for (size_t i = 0; i < full.shdrs.size(); i++) {
      bool in_file = full.shdrs[i].sh_type != SHT_NOBITS && full.shdrs[i].sh_type != SHT_NULL;
      EXPECT_EQ(full.sections[i].data.size(), in_file ? full.shdrs[i].sh_size : 0)
          << want.path << " " << full.sections[i].name;
    }
  }
}

TEST(ElfAlignScan, RootsAreTopDirectoriesOfPartitionMounts) {
  using tarvo::kestrel::utils::elf_align_roots;
  EXPECT_EQ(elf_align_roots(KESTREL_FIXTURES "/utils/mounts"),
            (std::set<std::string>{"/apex", "/odm", "/product", "/system_ext", "/vendor"}));
  EXPECT_TRUE(elf_align_roots(KESTREL_FIXTURES "/utils/no-such-mounts").empty());
}

}  // namespace
