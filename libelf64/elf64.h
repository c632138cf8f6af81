// The ELF64 reader: loads a file's headers and sections into an Elf64Binary.
#pragma once
