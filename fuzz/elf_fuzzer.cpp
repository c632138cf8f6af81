// SPDX-License-Identifier: Apache-2.0
// The ELF64 reader on arbitrary files, written to a scratch file. Both entry points must give
// the same answer and the same headers: the header-only one promises exactly that.
//
// A section name that runs off the end of the section-name string table is a broken file the
// reader refuses to work around: it stops the program on purpose. Such inputs are recognised
// here, from the bytes, and left out (-1 keeps them out of the corpus), so that a run stops only
// on a real fault.
#include <elf.h>
#include <string.h>

#include <string>

#include "fuzz/support.h"
#include "libelf64/elf64.h"

using android::elf64::Elf64Binary;
using android::elf64::Elf64Parser;

namespace {

// Copies the object at [offset, offset + sizeof(T)) of the input; false when it is not all there.
template <typename T>
bool read_at(const uint8_t* data, size_t size, uint64_t offset, T* out) {
  if (offset > size || sizeof(T) > size - offset) return false;
  memcpy(out, data + offset, sizeof(T));
  return true;
}

// True when the reader would look a section name up and find no zero byte after it inside the
// string table. The tables that must be in the file for the names to be looked up at all are
// taken as they stand; when one is missing, the reader refuses the file before any name.
bool has_unterminated_name(const uint8_t* data, size_t size) {
  Elf64_Ehdr eh;
  if (!read_at(data, size, 0, &eh) || eh.e_ident[EI_CLASS] != ELFCLASS64) return false;
  if (eh.e_shstrndx == SHN_UNDEF || eh.e_shstrndx >= eh.e_shnum) return false;
  const uint64_t table_bytes = uint64_t{eh.e_shnum} * sizeof(Elf64_Shdr);
  if (eh.e_shoff > size || table_bytes > size - eh.e_shoff) return false;

  Elf64_Shdr strtab;
  read_at(data, size, eh.e_shoff + uint64_t{eh.e_shstrndx} * sizeof(Elf64_Shdr), &strtab);
  // A table that holds no bytes in the file is empty, and every name misses it.
  uint64_t strtab_size = 0;
  if (strtab.sh_type != SHT_NOBITS && strtab.sh_type != SHT_NULL && strtab.sh_size != 0) {
    if (strtab.sh_offset > size || strtab.sh_size > size - strtab.sh_offset) return false;
    strtab_size = strtab.sh_size;
  }
  for (uint16_t i = 0; i < eh.e_shnum; i++) {
    Elf64_Shdr sh;
    read_at(data, size, eh.e_shoff + uint64_t{i} * sizeof(Elf64_Shdr), &sh);
    if (sh.sh_name >= strtab_size) return true;
    const uint8_t* name = data + strtab.sh_offset + sh.sh_name;
    if (memchr(name, 0, strtab_size - sh.sh_name) == nullptr) return true;
  }
  return false;
}

bool same_bytes(const void* a, const void* b, size_t n) { return n == 0 || memcmp(a, b, n) == 0; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static kestrel_fuzz::ScratchFile file("elf");
  if (has_unterminated_name(data, size)) return -1;
  file.Write(data, size);

  Elf64Binary whole;
  Elf64Binary headers;
  const bool ok = Elf64Parser::ParseElfFile(file.path(), whole);
  FUZZ_CHECK(Elf64Parser::ParseElfHeaders(file.path(), headers) == ok);
  if (!ok) return 0;

  FUZZ_CHECK(same_bytes(&whole.ehdr, data, sizeof(Elf64_Ehdr)));
  FUZZ_CHECK(whole.phdrs.size() == whole.ehdr.e_phnum);
  FUZZ_CHECK(whole.shdrs.size() == whole.ehdr.e_shnum);
  FUZZ_CHECK(whole.sections.size() == whole.shdrs.size());
  FUZZ_CHECK(headers.sections.empty());
  FUZZ_CHECK(same_bytes(&headers.ehdr, &whole.ehdr, sizeof(Elf64_Ehdr)));
  FUZZ_CHECK(headers.phdrs.size() == whole.phdrs.size() &&
             same_bytes(headers.phdrs.data(), whole.phdrs.data(),
                        whole.phdrs.size() * sizeof(Elf64_Phdr)));
  FUZZ_CHECK(headers.shdrs.size() == whole.shdrs.size() &&
             same_bytes(headers.shdrs.data(), whole.shdrs.data(),
                        whole.shdrs.size() * sizeof(Elf64_Shdr)));
  // Section contents are the file's bytes at the section's offset.
  for (size_t i = 0; i < whole.sections.size(); i++) {
    const auto& sc = whole.sections[i];
    if (sc.data.empty()) continue;
    FUZZ_CHECK(sc.offset <= size && sc.data.size() <= size - sc.offset);
    FUZZ_CHECK(same_bytes(sc.data.data(), data + sc.offset, sc.data.size()));
  }
  return 0;
}
