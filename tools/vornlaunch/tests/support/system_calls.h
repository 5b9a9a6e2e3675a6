#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <cstdio>
#include <functional>

namespace vorn::test {

/// Replacements of the system calls that the launcher's code makes; an empty
/// function is the real call. The linker redirects the calls; the shipped code
/// has no hooks. A replacement that makes the real call uses `real`.
struct SystemCalls {
  std::function<int(int)> epoll_create1;
  std::function<int(int, int, int, epoll_event*)> epoll_ctl;
  std::function<int(int, epoll_event*, int, int)> epoll_wait;
  std::function<int(int, const struct sigaction*, struct sigaction*)> sigaction;
  std::function<int(int, const sigset_t*, sigset_t*)> sigprocmask;
  std::function<int(void (*)(), void (*)(), void (*)())> pthread_atfork;
  std::function<int(int, const sigset_t*, int)> signalfd;
  std::function<int(idtype_t, id_t, siginfo_t*, int)> waitid;
  std::function<pid_t(pid_t, int*, int)> waitpid;
  std::function<ssize_t(int, void*, size_t)> read;
  std::function<int(const char*, struct stat*)> stat;
  std::function<pid_t()> fork;
  std::function<int(useconds_t)> usleep;
  std::function<int(pid_t, int)> kill;
  std::function<FILE*(const char*, const char*)> popen;
  std::function<int(FILE*)> pclose;
  std::function<int(int, int, int)> socket;
  std::function<int(int, const sockaddr*, socklen_t)> bind;
  std::function<int(int, int)> listen;
  std::function<int(const char*, mode_t)> chmod;
  std::function<int(const char*)> unlink;
  std::function<int(int, sockaddr*, socklen_t*)> accept;
  std::function<ssize_t(int, void*, size_t, int)> recv;
  std::function<ssize_t(int, const void*, size_t, int)> send;
  std::function<int(pollfd*, nfds_t, int)> poll;
  std::function<int(int)> close;
};

/// The replacements in force; one set per process.
SystemCalls& systemCalls();

/// The real calls.
extern const SystemCalls real;

/// Sets errno and returns -1: the ending of a call that fails.
int failWith(int error);

}  // namespace vorn::test
