// SPDX-License-Identifier: Apache-2.0
// The ELF64 reader. A file is read through a few positioned reads: the first page, which holds
// the file header and, in practice, the program headers, and one window that holds the section
// header table with the section-name string table that linkers place just before it. Every range
// is checked against the file's size first, so bad counts and offsets cost no allocation.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>

#include <android-base/file.h>
#include <android-base/unique_fd.h>

#include "libelf64/elf64.h"
#include "platform/log.h"

// A rule of the file format that the reader will not work around: report where it broke and stop.
#define ELF64_CHECK(cond)                                                                 \
  do {                                                                                    \
    if (!(cond)) {                                                                        \
      fprintf(stderr, "%s:%d Check failed: %s\n",                                         \
              ::tarvo::kestrel::platform::base_name(__FILE__), __LINE__, #cond);         \
      abort();                                                                            \
    }                                                                                     \
  } while (0)

namespace android::elf64 {

namespace {

constexpr uint64_t kHeadBytes = 4096;
// How far before the section header table its window reaches: linkers put the section-name
// string table just before the table, and in a large library (libc) it is over 1 KiB long.
constexpr uint64_t kTableSlack = 2048;

// Positioned reads of one open file, served from memory where an earlier window covers them.
// The windows are plain buffers, not zero-filled: the walk over a whole partition reads
// thousands of files and their cost is in the allocator as much as in the kernel.
class FileRanges {
 public:
  FileRanges(int fd, uint64_t size) : fd_(fd), size_(size) {}

  // An empty range needs no byte of the file, wherever it points.
  bool Contains(uint64_t offset, uint64_t length) const {
    return length == 0 || (offset <= size_ && length <= size_ - offset);
  }

  // Copies [offset, offset + length) of the file to dst; false when the range leaves the file
  // or the read comes up short.
  bool Read(uint64_t offset, uint64_t length, void* dst) const {
    if (length == 0) return true;
    if (!Contains(offset, length)) return false;
    if (head_.Copy(offset, length, dst) || table_.Copy(offset, length, dst)) return true;
    return android::base::ReadFullyAtOffset(fd_, dst, length, static_cast<off64_t>(offset));
  }

  // Keeps the part of the given range that lies inside the file in memory for later reads.
  bool LoadHead() { return Load(head_, 0, kHeadBytes); }
  bool LoadTable(uint64_t offset, uint64_t length) { return Load(table_, offset, length); }

 private:
  struct Window {
    uint64_t offset = 0;
    uint64_t length = 0;
    std::unique_ptr<char[]> bytes;

    bool Copy(uint64_t at, uint64_t n, void* dst) const {
      if (at < offset || n > length || at - offset > length - n) return false;
      memcpy(dst, bytes.get() + (at - offset), n);
      return true;
    }
  };

  bool Load(Window& w, uint64_t offset, uint64_t length) {
    offset = std::min(offset, size_);
    length = std::min(length, size_ - offset);
    w.length = 0;  // a failed load must not leave stale bytes that Read would trust
    std::unique_ptr<char[]> bytes(new char[length]);
    if (!Read(offset, length, bytes.get())) return false;
    w = {offset, length, std::move(bytes)};
    return true;
  }

  int fd_;
  uint64_t size_;
  Window head_;
  Window table_;
};

// The section-name string table as the name check sees it.
struct StrTbl {
  const char* data;
  uint64_t size;
};

bool NameTerminated(const StrTbl& sStrTblPtr, uint64_t nameIdx) {
  return nameIdx < sStrTblPtr.size &&
         memchr(&sStrTblPtr.data[nameIdx], 0, sStrTblPtr.size - nameIdx) != nullptr;
}

const char* SectionName(const StrTbl& sStrTblPtr, uint64_t nameIdx) {
  const char* st = sStrTblPtr.data;
  ELF64_CHECK(nameIdx < sStrTblPtr.size &&
              memchr(&st[nameIdx], 0, sStrTblPtr.size - nameIdx) != nullptr);
  return &st[nameIdx];
}

// No real section-name table comes near this (a large library's is a few KiB); a bigger one
// would cost its whole size in memory, so such a file is refused instead.
constexpr uint64_t kMaxNameTable = 16 << 20;

// What Parse keeps of a file, and what an unterminated section name does to it.
enum class Load {
  kContents,       // every section's contents; a bad name stops the program
  kNamesOrStop,    // names without contents; a bad name stops the program
  kHeadersOrRefuse,  // names checked and not kept; a bad name refuses the file
};

// Sections of these types occupy no bytes of the file; their offset and size are not file ranges.
bool HoldsBytes(const Elf64_Shdr& sh) { return sh.sh_type != SHT_NOBITS && sh.sh_type != SHT_NULL; }

bool Parse(const std::string& fileName, Elf64Binary& bin, Load load) {
  // O_NONBLOCK: a FIFO put where a file was expected must not hang the open; it is refused below.
  bin.path = fileName;
  android::base::unique_fd fd(open(fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (fd == -1) {
    fprintf(stderr, "Failed to open the file: %s\n", fileName.c_str());
    return false;
  }
  struct stat st;
  if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
  const uint64_t fileSize = static_cast<uint64_t>(st.st_size);

  FileRanges file(fd.get(), fileSize);
  if (!file.LoadHead()) return false;
  Elf64_Ehdr& eh = bin.ehdr;
  if (!file.Read(0, sizeof(eh), &eh)) return false;
  if (eh.e_ident[EI_CLASS] != ELFCLASS64) return false;

  const uint64_t phBytes = uint64_t{eh.e_phnum} * sizeof(Elf64_Phdr);
  if (!file.Contains(eh.e_phoff, phBytes)) return false;
  bin.phdrs.resize(eh.e_phnum);
  if (!file.Read(eh.e_phoff, phBytes, bin.phdrs.data())) return false;

  const uint64_t shBytes = uint64_t{eh.e_shnum} * sizeof(Elf64_Shdr);
  if (!file.Contains(eh.e_shoff, shBytes)) return false;
  if (eh.e_shnum == 0) return true;
  const uint64_t slack = std::min(eh.e_shoff, kTableSlack);
  if (!file.LoadTable(eh.e_shoff - slack, shBytes + slack)) return false;
  bin.shdrs.resize(eh.e_shnum);
  if (!file.Read(eh.e_shoff, shBytes, bin.shdrs.data())) return false;

  // No byte of a file belongs to two sections, so contents that add up to more than the file
  // mean overlapping or made-up sections; refusing them bounds what is loaded by the file size.
  uint64_t total = 0;
  for (const Elf64_Shdr& sh : bin.shdrs) {
    if (!HoldsBytes(sh)) continue;
    if (!file.Contains(sh.sh_offset, sh.sh_size) || sh.sh_size > fileSize - total) return false;
    total += sh.sh_size;
  }

  // SHN_UNDEF: the file has no section-name string table and its sections stay unnamed.
  std::vector<char> strtab;
  if (eh.e_shstrndx != SHN_UNDEF) {
    if (eh.e_shstrndx >= eh.e_shnum) return false;
    const Elf64_Shdr& sh = bin.shdrs[eh.e_shstrndx];
    if (HoldsBytes(sh)) {
      if (sh.sh_size > kMaxNameTable) return false;
      strtab.resize(sh.sh_size);
      if (!file.Read(sh.sh_offset, sh.sh_size, strtab.data())) return false;
    }
  }
  const StrTbl names{strtab.data(), strtab.size()};

  const bool named = eh.e_shstrndx != SHN_UNDEF;
  if (load == Load::kHeadersOrRefuse) {
    // Names are checked all the same, but a broken one refuses the file instead of ending the
    // program: a walk over a whole partition must not stop at its first damaged file.
    if (named) {
      for (const Elf64_Shdr& sh : bin.shdrs) {
        if (!NameTerminated(names, sh.sh_name)) return false;
      }
    }
    return true;
  }
  bin.sections.reserve(eh.e_shnum);
  for (size_t i = 0; i < bin.shdrs.size(); i++) {
    const Elf64_Shdr& sh = bin.shdrs[i];
    Elf64_Sc& sc = bin.sections.emplace_back();
    sc.offset = sh.sh_offset;
    sc.size = sh.sh_size;
    if (named) sc.name = SectionName(names, sh.sh_name);
    if (!HoldsBytes(sh) || load == Load::kNamesOrStop) continue;
    if (i == eh.e_shstrndx) {
      sc.data = strtab;
      continue;
    }
    sc.data.resize(sh.sh_size);
    if (!file.Read(sh.sh_offset, sh.sh_size, sc.data.data())) return false;
  }
  return true;
}

}  // namespace

Elf64Binary::~Elf64Binary() = default;

bool Elf64Parser::ParseElfFile(const std::string& fileName, Elf64Binary& elfBinary) {
  return Parse(fileName, elfBinary, Load::kContents);
}

bool Elf64Parser::ParseElfNames(const std::string& fileName, Elf64Binary& elfBinary) {
  return Parse(fileName, elfBinary, Load::kNamesOrStop);
}

bool Elf64Parser::ParseElfHeaders(const std::string& fileName, Elf64Binary& elfBinary) {
  return Parse(fileName, elfBinary, Load::kHeadersOrRefuse);
}

}  // namespace android::elf64
