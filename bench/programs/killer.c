// killer PID...
//
// Kills the processes, then waits for each. Writes 64-bit nanoseconds to
// standard output: the time for which the last one was a zombie, and the time
// from the first kill until the last one was collected.

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "measuring.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const pid_t last = atoi(argv[argc - 1]);
  struct pollfd exit = {.events = POLLIN};
  exit.fd = (int)syscall(SYS_pidfd_open, last, 0);
  if (exit.fd < 0) return 1;
  const int64_t begin = now();
  for (int i = 1; i < argc; ++i) kill(atoi(argv[i]), SIGKILL);
  // Without sleeping: a wake-up would take as long as the measured time.
  while (poll(&exit, 1, 0) == 0) {
  }
  const int64_t dead = now();
  int64_t collected = dead;
  for (int i = argc - 1; i > 0; --i) {
    while (kill(atoi(argv[i]), 0) == 0 || errno != ESRCH) {
    }
    if (i == argc - 1) collected = now();
  }
  const int64_t times[] = {collected - dead, now() - begin};
  return fwrite(times, sizeof(times), 1, stdout) == 1 ? 0 : 1;
}
