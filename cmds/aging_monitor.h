// SPDX-License-Identifier: Apache-2.0
// The aging daemon's kernel memory monitors for dma-buf, unreclaimable slab and vmalloc memory.
#pragma once

#include "libs/kestrel/proc-meminfo.h"

// The kernel memory monitors. Each probe registers its monitor and writes a first report; the
// result (true or false) says whether the monitor runs.
int aging_dmabuf_probe(meminfo* mem);
int aging_slab_probe(meminfo* mem);
int aging_vmalloc_probe(meminfo* mem);
