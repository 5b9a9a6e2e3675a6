#include "support/socket_calls.h"

// The linker turns every call of X in the client's objects into __wrap_X and
// offers the original as __real_X; the names are its own.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)

using vorn::test::socketCalls;

extern "C" {

int __real_socket(int a, int b, int c);
int __wrap_socket(int a, int b, int c) {
  socketCalls().made.emplace_back("socket");
  const auto& replacement = socketCalls().socket;
  return replacement ? replacement(a, b, c) : __real_socket(a, b, c);
}

int __real_connect(int a, const sockaddr* b, socklen_t c);
int __wrap_connect(int a, const sockaddr* b, socklen_t c) {
  socketCalls().made.emplace_back("connect");
  const auto& replacement = socketCalls().connect;
  return replacement ? replacement(a, b, c) : __real_connect(a, b, c);
}

int __real_getsockopt(int a, int b, int c, void* d, socklen_t* e);
int __wrap_getsockopt(int a, int b, int c, void* d, socklen_t* e) {
  socketCalls().made.emplace_back("getsockopt");
  const auto& replacement = socketCalls().getsockopt;
  return replacement ? replacement(a, b, c, d, e)
                     : __real_getsockopt(a, b, c, d, e);
}

ssize_t __real_send(int a, const void* b, size_t c, int d);
ssize_t __wrap_send(int a, const void* b, size_t c, int d) {
  socketCalls().made.emplace_back("send");
  const auto& replacement = socketCalls().send;
  return replacement ? replacement(a, b, c, d) : __real_send(a, b, c, d);
}

ssize_t __real_recv(int a, void* b, size_t c, int d);
ssize_t __wrap_recv(int a, void* b, size_t c, int d) {
  socketCalls().made.emplace_back("recv");
  const auto& replacement = socketCalls().recv;
  return replacement ? replacement(a, b, c, d) : __real_recv(a, b, c, d);
}

int __real_poll(pollfd* a, nfds_t b, int c);
int __wrap_poll(pollfd* a, nfds_t b, int c) {
  socketCalls().made.emplace_back("poll");
  const auto& replacement = socketCalls().poll;
  return replacement ? replacement(a, b, c) : __real_poll(a, b, c);
}

int __real_pthread_sigmask(int a, const sigset_t* b, sigset_t* c);
int __wrap_pthread_sigmask(int a, const sigset_t* b, sigset_t* c) {
  socketCalls().made.emplace_back("pthread_sigmask");
  const auto& replacement = socketCalls().pthread_sigmask;
  return replacement ? replacement(a, b, c) : __real_pthread_sigmask(a, b, c);
}

int __real_lstat(const char* a, struct stat* b);
int __wrap_lstat(const char* a, struct stat* b) {
  socketCalls().made.emplace_back("lstat");
  const auto& replacement = socketCalls().lstat;
  return replacement ? replacement(a, b) : __real_lstat(a, b);
}

int __real_close(int a);
int __wrap_close(int a) {
  socketCalls().made.emplace_back("close");
  return __real_close(a);
}

int __real_shutdown(int a, int b);
int __wrap_shutdown(int a, int b) {
  socketCalls().made.emplace_back("shutdown");
  return __real_shutdown(a, b);
}

}  // extern "C"

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)

namespace vorn::test {

SocketCalls& socketCalls() {
  static thread_local SocketCalls calls;
  return calls;
}

const SocketCalls realSocketCalls = {
    __real_socket,
    __real_connect,
    __real_getsockopt,
    __real_send,
    __real_recv,
    __real_poll,
    __real_pthread_sigmask,
    __real_lstat,
    {},
};

}  // namespace vorn::test
