/* The system as the launcher sees it when a test holds the clock; preloaded.

   The test sets both clocks, which do not advance, through a file that both
   have mapped. Pauses take a twentieth of their time. The test can let fork()
   and SIGTERM be refused. Everything else is the real system. */

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

struct System {
  volatile int64_t clock_ms;
  volatile int64_t wall_clock_ms;
  volatile int64_t refuses_fork;
  volatile int64_t refuses_sigterm;
};

static const struct System* the_system;

__attribute__((constructor)) static void mapSystem(void) {
  const int fd = open(getenv("FAKE_SYSTEM"), O_RDONLY | O_CLOEXEC);
  void* const page =
      mmap(NULL, sizeof *the_system, PROT_READ, MAP_SHARED, fd, 0);
  if (page == MAP_FAILED) abort();
  close(fd);
  the_system = page;
  unsetenv("LD_PRELOAD"); /* the nodes, ps and grep see the real one */
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  int64_t ms;
  if (the_system != NULL && clock == CLOCK_MONOTONIC) {
    ms = the_system->clock_ms;
  } else if (the_system != NULL && clock == CLOCK_REALTIME) {
    ms = the_system->wall_clock_ms;
  } else {
    return (int)syscall(SYS_clock_gettime, clock, now);
  }
  now->tv_sec = ms / 1000;
  now->tv_nsec = ms % 1000 * 1000000;
  return 0;
}

int usleep(useconds_t us) {
  const struct timespec pause = {us / 20 / 1000000, us / 20 % 1000000 * 1000};
  return nanosleep(&pause, NULL);
}

pid_t fork(void) {
  if (the_system->refuses_fork) {
    errno = EAGAIN;
    return -1;
  }
  pid_t (*real)(void) = (pid_t(*)(void))dlsym(RTLD_NEXT, "fork");
  return real();
}

int kill(pid_t pid, int number) {
  if (the_system->refuses_sigterm && number == SIGTERM) {
    errno = EPERM;
    return -1;
  }
  return (int)syscall(SYS_kill, pid, number);
}
