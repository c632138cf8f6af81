// The ELF64 reader (not built yet).
#include "libelf64/elf64.h"
