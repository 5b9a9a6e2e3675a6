// status_floor: only the system calls of one request: wait, accept, receive,
// write a log line to a file, send, wait until the client closes, close.

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

static void serve(int listener) {
  static const char line[] =
      "2026-11-20T12:34:56.789012Z INFO  vornlaunch[10002] "
      "control_node.cpp:194 controlHandler: control cmd: 3\n";
  char request[132];
  const char reply[24] = {0};
  const int fd = accept(listener, NULL, NULL);
  if (fd < 0) return;
  if (recv(fd, request, sizeof(request), 0) == sizeof(request)) {
    struct pollfd connection = {.fd = fd, .events = 0};
    if (write(2, line, sizeof(line) - 1) < 0 ||
        send(fd, reply, sizeof(reply), 0) < 0) {
      _exit(1);
    }
    poll(&connection, 1, 100);
  }
  close(fd);
}

int main(void) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  strcpy(address.sun_path, "/tmp/vornlaunch/vornlaunch.sock");
  mkdir("/tmp/vornlaunch", 0755);
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener, (struct sockaddr*)&address, sizeof(address)) != 0) {
    return 1;
  }
  fcntl(listener, F_SETFL, O_NONBLOCK);
  listen(listener, 5);
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  struct epoll_event event = {.events = EPOLLIN};
  epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &event);
  for (;;) {
    struct epoll_event ready[2];
    if (epoll_wait(epoll, ready, 2, -1) == 1) serve(listener);
  }
}
