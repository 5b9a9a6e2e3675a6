// client SOCKET RECORD REPLY COUNT < REQUESTS
//
// Sends COUNT requests, one connection each. The requests are records of RECORD
// bytes on standard input, used in turn. A reply has REPLY bytes; 0: all bytes
// up to the end of the stream. Writes 64-bit nanoseconds to standard output:
// the total, then those of each request.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "measuring.h"

static void request(const struct sockaddr_un* address, const char* record,
                    size_t size, size_t reply_size) {
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(fd, (const struct sockaddr*)address, sizeof(*address)) != 0) {
    fail("connect");
  }
  if (send(fd, record, size, 0) != (ssize_t)size) fail("send");
  size_t received = 0;
  while (reply_size == 0 || received < reply_size) {
    char reply[65536];
    const ssize_t count = recv(fd, reply, sizeof(reply), 0);
    if (count < 0 || (count == 0 && received == 0)) fail("recv");
    if (count == 0) break;
    received += (size_t)count;
  }
  close(fd);
}

int main(int argc, char** argv) {
  if (argc != 5) return 2;
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  strncpy(address.sun_path, argv[1], sizeof(address.sun_path) - 1);
  const size_t record_size = strtoul(argv[2], NULL, 10);
  const size_t reply_size = strtoul(argv[3], NULL, 10);
  const size_t count = strtoul(argv[4], NULL, 10);
  const size_t largest = 16 << 20;
  char* const records = malloc(largest);
  int64_t* const times = malloc((count + 1) * sizeof(*times));
  if (records == NULL || times == NULL) fail("malloc");
  const size_t known = fread(records, 1, largest, stdin) / record_size;
  if (known == 0) return 2;
  const int64_t begin = now();
  for (size_t i = 0; i < count; ++i) {
    const int64_t before = now();
    request(&address, records + i % known * record_size, record_size,
            reply_size);
    times[i + 1] = now() - before;
  }
  times[0] = now() - begin;
  return fwrite(times, sizeof(*times), count + 1, stdout) == count + 1 ? 0 : 1;
}
