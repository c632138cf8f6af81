// SPDX-License-Identifier: Apache-2.0
// A program for the allocator hook to watch. It writes "ready" and waits; on SIGUSR1 it
// allocates from two call sites with known totals, site_a 3 x 40000 bytes (grown by realloc from
// 1000) and site_b 5 x 7000 bytes (calloc), keeps them, writes "allocated" and idles for ever.
// With the argument "storm" it first runs threads that allocate and free through every
// allocation function while the main thread forks children that allocate too. The main thread
// takes SIGUSR1 with sigwait: every other thread blocks it (the hook's worker blocks all).
#define _GNU_SOURCE
#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static void* kept[8];

static void say(const char* line) {
  if (write(STDOUT_FILENO, line, strlen(line)) < 0) _exit(3);
}

static void* check(void* p, size_t size) {
  if (p == NULL || malloc_usable_size(p) < size) {
    say("bad block\n");
    _exit(4);
  }
  return p;
}

__attribute__((noinline)) void site_a(void) {
  for (int i = 0; i < 3; ++i) kept[i] = check(realloc(check(malloc(1000), 1000), 40000), 40000);
}

__attribute__((noinline)) void site_b(void) {
  for (int i = 0; i < 5; ++i) kept[3 + i] = check(calloc(5, 1400), 7000);
}

// Every other allocation function, each block freed again.
static void churn(unsigned seed, int rounds) {
  for (int i = 0; i < rounds; ++i) {
    seed = seed * 1103515245u + 12345u;
    size_t size = 1 + seed % 5000;
    void* p = NULL;
    switch (seed >> 28) {
      case 0: if (posix_memalign(&p, 64, size) != 0) p = NULL; break;
      case 1: p = aligned_alloc(256, size); break;
      case 2: p = memalign(32, size); break;
      case 3: p = valloc(size); break;
      case 4: p = pvalloc(size); break;
      case 5: p = reallocarray(NULL, 4, size); size *= 4; break;
      case 6: p = calloc(1, size); break;
      default: p = realloc(malloc(size / 2 + 1), size); break;
    }
    free(check(p, size));
  }
}

static void* churn_thread(void* arg) {
  churn((unsigned)(uintptr_t)arg, 20000);
  return NULL;
}

static void storm(void) {
  pthread_t threads[4];
  for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, churn_thread, (void*)(uintptr_t)(i + 1));
  for (int i = 0; i < 50; ++i) {
    pid_t child = fork();
    if (child == 0) {
      churn((unsigned)i, 200);
      _exit(0);
    }
    int status;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0) {
      say("child failed\n");
      _exit(5);
    }
  }
  for (int i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
}

int main(int argc, char** argv) {
  sigset_t usr1;
  sigemptyset(&usr1);
  sigaddset(&usr1, SIGUSR1);
  sigprocmask(SIG_BLOCK, &usr1, NULL);  // the storm's threads inherit it
  say("ready\n");
  int sig;
  sigwait(&usr1, &sig);
  if (argc > 1 && strcmp(argv[1], "storm") == 0) storm();
  site_a();
  site_b();
  say("allocated\n");
  for (;;) pause();
}
