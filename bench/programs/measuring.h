#pragma once

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

// The common code of the measuring programs.

/// The steady clock, in nanoseconds.
static inline int64_t now(void) {
  struct timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * INT64_C(1000000000) + time.tv_nsec;
}

/// Exits with the message `what` and the error in errno.
static inline _Noreturn void fail(const char* what) {
  perror(what);
  exit(1);
}
