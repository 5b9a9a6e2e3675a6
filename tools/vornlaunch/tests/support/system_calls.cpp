#include "support/system_calls.h"

#include <cerrno>

// The linker turns every call of X in the launcher's objects into __wrap_X and
// offers the original as __real_X; the names are its own.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)

using vorn::test::systemCalls;

extern "C" {

int __real_epoll_create1(int a);
int __wrap_epoll_create1(int a) {
  const auto& replacement = systemCalls().epoll_create1;
  return replacement ? replacement(a) : __real_epoll_create1(a);
}

int __real_epoll_ctl(int a, int b, int c, epoll_event* d);
int __wrap_epoll_ctl(int a, int b, int c, epoll_event* d) {
  const auto& replacement = systemCalls().epoll_ctl;
  return replacement ? replacement(a, b, c, d) : __real_epoll_ctl(a, b, c, d);
}

int __real_epoll_wait(int a, epoll_event* b, int c, int d);
int __wrap_epoll_wait(int a, epoll_event* b, int c, int d) {
  const auto& replacement = systemCalls().epoll_wait;
  return replacement ? replacement(a, b, c, d) : __real_epoll_wait(a, b, c, d);
}

int __real_sigaction(int a, const struct sigaction* b, struct sigaction* c);
int __wrap_sigaction(int a, const struct sigaction* b, struct sigaction* c) {
  const auto& replacement = systemCalls().sigaction;
  return replacement ? replacement(a, b, c) : __real_sigaction(a, b, c);
}

int __real_sigprocmask(int a, const sigset_t* b, sigset_t* c);
int __wrap_sigprocmask(int a, const sigset_t* b, sigset_t* c) {
  const auto& replacement = systemCalls().sigprocmask;
  return replacement ? replacement(a, b, c) : __real_sigprocmask(a, b, c);
}

int __real_pthread_atfork(void (*a)(), void (*b)(), void (*c)());
int __wrap_pthread_atfork(void (*a)(), void (*b)(), void (*c)()) {
  const auto& replacement = systemCalls().pthread_atfork;
  return replacement ? replacement(a, b, c) : __real_pthread_atfork(a, b, c);
}

int __real_signalfd(int a, const sigset_t* b, int c);
int __wrap_signalfd(int a, const sigset_t* b, int c) {
  const auto& replacement = systemCalls().signalfd;
  return replacement ? replacement(a, b, c) : __real_signalfd(a, b, c);
}

int __real_waitid(idtype_t a, id_t b, siginfo_t* c, int d);
int __wrap_waitid(idtype_t a, id_t b, siginfo_t* c, int d) {
  const auto& replacement = systemCalls().waitid;
  return replacement ? replacement(a, b, c, d) : __real_waitid(a, b, c, d);
}

pid_t __real_waitpid(pid_t a, int* b, int c);
pid_t __wrap_waitpid(pid_t a, int* b, int c) {
  const auto& replacement = systemCalls().waitpid;
  return replacement ? replacement(a, b, c) : __real_waitpid(a, b, c);
}

ssize_t __real_read(int a, void* b, size_t c);
ssize_t __wrap_read(int a, void* b, size_t c) {
  const auto& replacement = systemCalls().read;
  return replacement ? replacement(a, b, c) : __real_read(a, b, c);
}

int __real_stat(const char* a, struct stat* b);
int __wrap_stat(const char* a, struct stat* b) {
  const auto& replacement = systemCalls().stat;
  return replacement ? replacement(a, b) : __real_stat(a, b);
}

pid_t __real_fork();
pid_t __wrap_fork() {
  const auto& replacement = systemCalls().fork;
  return replacement ? replacement() : __real_fork();
}

int __real_usleep(useconds_t a);
int __wrap_usleep(useconds_t a) {
  const auto& replacement = systemCalls().usleep;
  return replacement ? replacement(a) : __real_usleep(a);
}

int __real_kill(pid_t a, int b);
int __wrap_kill(pid_t a, int b) {
  const auto& replacement = systemCalls().kill;
  return replacement ? replacement(a, b) : __real_kill(a, b);
}

FILE* __real_popen(const char* a, const char* b);
FILE* __wrap_popen(const char* a, const char* b) {
  const auto& replacement = systemCalls().popen;
  return replacement ? replacement(a, b) : __real_popen(a, b);
}

int __real_pclose(FILE* a);
int __wrap_pclose(FILE* a) {
  const auto& replacement = systemCalls().pclose;
  return replacement ? replacement(a) : __real_pclose(a);
}

int __real_socket(int a, int b, int c);
int __wrap_socket(int a, int b, int c) {
  const auto& replacement = systemCalls().socket;
  return replacement ? replacement(a, b, c) : __real_socket(a, b, c);
}

int __real_bind(int a, const sockaddr* b, socklen_t c);
int __wrap_bind(int a, const sockaddr* b, socklen_t c) {
  const auto& replacement = systemCalls().bind;
  return replacement ? replacement(a, b, c) : __real_bind(a, b, c);
}

int __real_listen(int a, int b);
int __wrap_listen(int a, int b) {
  const auto& replacement = systemCalls().listen;
  return replacement ? replacement(a, b) : __real_listen(a, b);
}

int __real_chmod(const char* a, mode_t b);
int __wrap_chmod(const char* a, mode_t b) {
  const auto& replacement = systemCalls().chmod;
  return replacement ? replacement(a, b) : __real_chmod(a, b);
}

int __real_unlink(const char* a);
int __wrap_unlink(const char* a) {
  const auto& replacement = systemCalls().unlink;
  return replacement ? replacement(a) : __real_unlink(a);
}

int __real_accept(int a, sockaddr* b, socklen_t* c);
int __wrap_accept(int a, sockaddr* b, socklen_t* c) {
  const auto& replacement = systemCalls().accept;
  return replacement ? replacement(a, b, c) : __real_accept(a, b, c);
}

ssize_t __real_recv(int a, void* b, size_t c, int d);
ssize_t __wrap_recv(int a, void* b, size_t c, int d) {
  const auto& replacement = systemCalls().recv;
  return replacement ? replacement(a, b, c, d) : __real_recv(a, b, c, d);
}

ssize_t __real_send(int a, const void* b, size_t c, int d);
ssize_t __wrap_send(int a, const void* b, size_t c, int d) {
  const auto& replacement = systemCalls().send;
  return replacement ? replacement(a, b, c, d) : __real_send(a, b, c, d);
}

int __real_poll(pollfd* a, nfds_t b, int c);
int __wrap_poll(pollfd* a, nfds_t b, int c) {
  const auto& replacement = systemCalls().poll;
  return replacement ? replacement(a, b, c) : __real_poll(a, b, c);
}

int __real_close(int a);
int __wrap_close(int a) {
  const auto& replacement = systemCalls().close;
  return replacement ? replacement(a) : __real_close(a);
}

}  // extern "C"

namespace vorn::test {

SystemCalls& systemCalls() {
  static SystemCalls calls;
  return calls;
}

const SystemCalls real = {
    __real_epoll_create1, __real_epoll_ctl,   __real_epoll_wait,
    __real_sigaction,     __real_sigprocmask, __real_pthread_atfork,
    __real_signalfd,      __real_waitid,      __real_waitpid,
    __real_read,          __real_stat,        __real_fork,
    __real_usleep,        __real_kill,        __real_popen,
    __real_pclose,        __real_socket,      __real_bind,
    __real_listen,        __real_chmod,       __real_unlink,
    __real_accept,        __real_recv,        __real_send,
    __real_poll,          __real_close,
};

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)

int failWith(int error) {
  errno = error;
  return -1;
}

}  // namespace vorn::test
