// start_floor COUNT PROGRAM: the minimum that starts COUNT nodes.

#include <stdlib.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  const long count = atol(argv[1]);
  for (long i = 0; i < count; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      execv(argv[2], argv + 2);
      _exit(127);
    }
    if (child < 0) return 1;
  }
  for (;;) pause();
}
