// SPDX-License-Identifier: Apache-2.0
// Inside the malloc hook: the one recorder, the per-thread guard that keeps the hook from
// recording its own allocations, and the requests its worker thread answers.
#pragma once

#include <stdint.h>

#include <atomic>

#include "hook/recorder.h"
#include "libs/kestrel/malloc_debug.h"

namespace kestrel_hook {

using namespace tarvo::kestrel::malloc_debug;

Recorder& recorder();

// Answers one request; the worker thread calls it for every signal it is handed.
void handle_request(int request);

// Set while a thread runs hook code that may allocate (the unwinder, the worker): allocations it
// makes go straight to the C library. Initial-exec TLS: a preloaded library's thread variables
// sit in the static TLS block, so reaching them never allocates.
extern __thread int t_in_hook __attribute__((tls_model("initial-exec")));

class InHook {
 public:
  InHook() : outer_(t_in_hook) { t_in_hook = 1; }
  ~InHook() { t_in_hook = outer_; }
  InHook(const InHook&) = delete;
  InHook& operator=(const InHook&) = delete;
  bool outermost() const { return outer_ == 0; }

 private:
  int outer_;
};

// A forked child has no worker thread; the first allocation call after fork starts one.
extern std::atomic<bool> g_worker_missing;
void start_worker();

// The caller's backtrace, leaving out the hook's own frames; returns the depth.
int capture_backtrace(uintptr_t* frames);

}  // namespace kestrel_hook
