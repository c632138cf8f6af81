// mallopt for the configuration report. bionic understands the decay, purge and statistics
// parameters and the vendor allocator's own; glibc does not, and answers 0 for every one of
// them, which is what a device whose allocator lacks a parameter reports too.
#include "platform/mallopt.h"

#include <malloc.h>

namespace tarvo::kestrel::platform {

int allocator_option(int param, int value) { return mallopt(param, value); }

}  // namespace tarvo::kestrel::platform
