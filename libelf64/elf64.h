// SPDX-License-Identifier: Apache-2.0
// The ELF64 reader: loads a file's header, program headers, section headers and sections into an
// Elf64Binary. Only the class byte of the identification is checked (64-bit files only); every
// table is checked against the file's size before it is allocated or read, so a damaged file ends
// in false rather than in a crash or a huge allocation; a section-name table over 16 MiB is
// refused the same way.
#pragma once

#include <elf.h>

#include <cstdint>
#include <string>
#include <vector>

namespace android::elf64 {

// One section as loaded.
struct Elf64_Sc {
  std::vector<char> data;  // the contents; empty for SHT_NOBITS and SHT_NULL, which hold no bytes
  uint64_t offset = 0;     // sh_offset, where the contents came from
  std::string name;        // from the section-name string table; empty when the file has none
  uint64_t size = 0;       // sh_size as declared (for SHT_NOBITS more than data holds)
};

class Elf64Binary {
 public:
  ~Elf64Binary();

  Elf64_Ehdr ehdr = {};
  std::vector<Elf64_Phdr> phdrs;  // in file order
  std::vector<Elf64_Shdr> shdrs;  // in file order
  std::vector<Elf64_Sc> sections;  // one per section header
  std::string path;
};

class Elf64Parser {
 public:
  // True when the file was read completely; false when it cannot be opened ("Failed to open the
  // file: " on stderr), is not ELF class 64, or any table lies outside the file. On false the
  // binary may be partly filled. A section name that runs off the end of the string table
  // aborts the process.
  static bool ParseElfFile(const std::string& fileName, Elf64Binary& elfBinary);

  // ParseElfFile without the section contents: the same checks and the same answer, a section
  // name that is not terminated stopping the program too, but `sections` holds each section's
  // offset, size and name and no data. Memory stays near the size of the headers, however
  // large the sections are.
  static bool ParseElfNames(const std::string& fileName, Elf64Binary& elfBinary);

  // The same checks and the same answer as ParseElfFile, names included, but only the three
  // headers are kept: section contents are checked against the file and not read, and
  // `sections` stays empty. For callers that look at the headers of many files, so a section
  // name that is not terminated refuses the file here where ParseElfFile stops the program.
  static bool ParseElfHeaders(const std::string& fileName, Elf64Binary& elfBinary);
};

}  // namespace android::elf64
