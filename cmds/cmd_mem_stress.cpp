// SPDX-License-Identifier: Apache-2.0
// cmd_mem_stress.cpp: fills native memory one MiB at a time so that the device comes under real
// pressure, drawing a progress bar as it goes; can then hold the memory until a signal arrives.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>

#include "cmds/cmds.h"
#include "parse-options/parse-options.h"

// Under the leak checker the blocks kept on purpose must not be reported at exit.
#if defined(__SANITIZE_ADDRESS__)
#define KESTREL_LEAK_CHECKER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(leak_sanitizer)
#define KESTREL_LEAK_CHECKER 1
#endif
#endif
#ifdef KESTREL_LEAK_CHECKER
#include <sanitizer/lsan_interface.h>
#endif

void alloc_native_size(int mib, bool random);

namespace {

constexpr size_t kBlockBytes = 1024 * 1024;
constexpr int kBarWidth = 70;

// The last block filled. Blocks are never freed; the pointer is volatile so that the compiler
// sees every block escape and cannot drop the fill as a dead store.
unsigned char* volatile g_native_block = nullptr;

void draw_bar(double filled, double mib) {
  int pos = static_cast<int>(filled / mib * kBarWidth);
  for (int i = 0; i < kBarWidth; i++) {
    if (i < pos) {
      putchar('=');
    } else if (i == pos) {
      putchar('>');
    } else {
      putchar(' ');
    }
  }
  printf("] %d %%\r", static_cast<int>(filled * 100 / mib));
  fflush(stdout);
}

// The usual ways to stop a holding run (Ctrl-C, kill, a closed terminal) end the wait, so the
// command returns 0 instead of dying with the signal. The signals stay blocked until the wait
// begins: one that arrived between "endless loop..." and a plain pause() would be spent before
// the wait and leave the process holding its memory for ever.
void hold_until_signalled() {
  sigset_t stop_signals, old_mask;
  sigemptyset(&stop_signals);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, sig);
  sigprocmask(SIG_BLOCK, &stop_signals, &old_mask);

  struct sigaction sa = {};
  sa.sa_handler = [](int) {};
  sigemptyset(&sa.sa_mask);
  for (int sig : {SIGINT, SIGTERM, SIGHUP}) sigaction(sig, &sa, nullptr);

  printf("endless loop...\n");
  fflush(stdout);
  sigsuspend(&old_mask);  // pause() with the stop signals let through
}

}  // namespace

int cmd_mem_stress(int argc, const char** argv) {
  int native = 0, random_fill = 0, loop = 0;
  const option options[] = {
      {.type = OPTION_INTEGER, .short_name = 'n', .long_name = "native", .value = &native,
       .help = "fillin native size mib"},
      {.type = OPTION_COUNTUP, .short_name = 'r', .long_name = "rand", .value = &random_fill,
       .help = "fillin rand num"},
      {.type = OPTION_COUNTUP, .short_name = 'l', .long_name = "loop", .value = &loop,
       .help = "endless loop mode"},
      {.type = OPTION_END},
  };
  const char* const usage[] = {"kestrel mem-stress [options] mib", nullptr};

  argc = parse_options(argc, argv, options, usage);

  // A plain size argument replaces --native.
  int size = native;
  if (argc != 0 || native == 0) {
    if (argc != 1) usage_with_options(usage, options);
    char* end = nullptr;
    size = static_cast<int>(strtol(argv[0], &end, 10));
    if (*end != '\0') die("native expects a numerical value");
  }

  alloc_native_size(size, random_fill != 0);
  if (loop) {
    hold_until_signalled();
  }
  return 0;
}

void alloc_native_size(int mib, bool random) {
  if (mib < 0) die("sz should not be a nagative value");

  double filled = 0;
  while (filled < mib) {
    printf("[");
    auto* block = static_cast<unsigned char*>(malloc(kBlockBytes));
    if (block == nullptr) break;
    srand(static_cast<unsigned>(time(nullptr)));
    g_native_block = block;
#ifdef KESTREL_LEAK_CHECKER
    __lsan_ignore_object(block);
#endif
    for (size_t i = 0; i < kBlockBytes; i++) {
      block[i] = random ? static_cast<unsigned char>(rand()) : 1;
    }
    filled++;
    draw_bar(filled, mib);
  }
  printf("\n");

  if (filled < mib) die("failed to fillin native %d Mib.\n", static_cast<int>(filled));
  printf("fillin native %d Mib.\n", static_cast<int>(filled));
}
