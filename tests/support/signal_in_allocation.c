/* Raises SIGINT inside one memory allocation of the launcher; preloaded.

   SIGNAL_AT counts the allocations from 1, beginning when the launcher handles
   SIGINT. An allocation that is made while the signal is handled ends the
   process with status 99. If the launcher waits for events before it reaches
   the allocation, it has fewer: the process ends with status 98. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <signal.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <unistd.h>

enum { kNoSuchAllocation = 98, kAllocatedInHandler = 99 };

static void* (*real_malloc)(size_t);
static void* (*real_calloc)(size_t, size_t);
static void* (*real_realloc)(void*, size_t);
static void (*real_free)(void*);
static long until_signal;
static volatile sig_atomic_t handles_signal;

/* For the loader, which allocates while the functions above are looked up. */
static _Alignas(16) char early[4096];
static size_t early_size;

static void* allocateEarly(size_t size) {
  void* const memory = early + early_size;
  early_size += (size + 15) / 16 * 16;
  if (early_size > sizeof early) abort();
  return memory; /* zero, as calloc() must be */
}

static int isEarly(const void* memory) {
  return (const char*)memory >= early &&
         (const char*)memory < early + sizeof early;
}

/* Whether the functions above can be called. The first allocation precedes any
   constructor. */
static int isReady(void) {
  static int is_resolving;
  if (real_malloc == NULL && !is_resolving) {
    const char* const at = getenv("SIGNAL_AT");
    is_resolving = 1;
    until_signal = at == NULL ? 0 : strtol(at, NULL, 10);
    *(void**)&real_calloc = dlsym(RTLD_NEXT, "calloc");
    *(void**)&real_realloc = dlsym(RTLD_NEXT, "realloc");
    *(void**)&real_free = dlsym(RTLD_NEXT, "free");
    *(void**)&real_malloc = dlsym(RTLD_NEXT, "malloc");
  }
  return real_malloc != NULL;
}

static void countAllocation(void) {
  struct sigaction action;
  if (handles_signal) _exit(kAllocatedInHandler);
  if (until_signal == 0 || sigaction(SIGINT, NULL, &action) != 0 ||
      action.sa_handler == SIG_DFL || --until_signal != 0) {
    return;
  }
  handles_signal = 1;
  raise(SIGINT);
  handles_signal = 0;
}

void* malloc(size_t size) {
  if (!isReady()) return allocateEarly(size);
  countAllocation();
  return real_malloc(size);
}

void* calloc(size_t count, size_t size) {
  if (!isReady()) return allocateEarly(count * size);
  countAllocation();
  return real_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  if (!isReady() || isEarly(memory)) abort(); /* the loader does not do this */
  countAllocation();
  return real_realloc(memory, size);
}

void free(void* memory) {
  if (handles_signal && memory != NULL) _exit(kAllocatedInHandler);
  if (isReady() && !isEarly(memory)) real_free(memory);
}

int epoll_wait(int fd, struct epoll_event* events, int size, int timeout) {
  (void)fd, (void)events, (void)size, (void)timeout;
  _exit(until_signal > 0 ? kNoSuchAllocation : EXIT_SUCCESS);
}
