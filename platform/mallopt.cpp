// SPDX-License-Identifier: Apache-2.0
// mallopt for the configuration report. bionic understands the decay, purge and statistics
// parameters and the vendor allocator's own; glibc knows none of them and answers 1 for each
// (its "nothing went wrong"), and AddressSanitizer's allocator answers 0.
#include "platform/mallopt.h"

#include <malloc.h>

namespace tarvo::kestrel::platform {

int allocator_option(int param, int value) { return mallopt(param, value); }

}  // namespace tarvo::kestrel::platform
