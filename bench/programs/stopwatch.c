// stopwatch COUNT COMMAND [ARGUMENT...]
//
// Runs a supervisor with its output in /tmp/bench/log, and waits until COUNT
// nodes have reported that they run. Writes the nanoseconds from the exec of
// the command until then to /tmp/bench/time, and waits until it is killed.

#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "measuring.h"

static _Noreturn void run(char** command, int begin_fd) {
  const int log = open("/tmp/bench/log", O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (log < 0 || dup2(log, 1) < 0 || dup2(log, 2) < 0) fail("log");
  close(log);
  const int64_t begin = now();
  if (write(begin_fd, &begin, sizeof(begin)) != sizeof(begin)) fail("pipe");
  execvp(command[0], command);
  fail(command[0]);
}

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  if (mkfifo("/tmp/bench/started", 0666) != 0) fail("mkfifo");
  // Opens both ends, so that end of file never occurs.
  const int started = open("/tmp/bench/started", O_RDWR | O_CLOEXEC);
  int begin_fds[2];
  if (started < 0 || pipe2(begin_fds, O_CLOEXEC) != 0) fail("pipe");
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) run(argv + 2, begin_fds[1]);

  int64_t begin = 0;
  if (read(begin_fds[0], &begin, sizeof(begin)) != sizeof(begin)) fail("read");
  for (long missing = atol(argv[1]); missing > 0;) {
    char bytes[4096];
    const ssize_t count = read(started, bytes, sizeof(bytes));
    if (count <= 0) fail("read");
    missing -= count;
  }
  const int64_t end = now();
  FILE* const file = fopen("/tmp/bench/time.new", "w");
  if (file == NULL) fail("time");
  fprintf(file, "%lld\n", (long long)(end - begin));
  fclose(file);
  rename("/tmp/bench/time.new", "/tmp/bench/time");
  for (;;) pause();
}
