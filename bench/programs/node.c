// A node: writes one byte into the stopwatch's FIFO, then waits.

#include <fcntl.h>
#include <unistd.h>

int main(void) {
  const int fd = open("/tmp/bench/started", O_WRONLY | O_CLOEXEC);
  if (fd < 0 || write(fd, ".", 1) != 1) return 1;
  close(fd);
  for (;;) pause();
}
