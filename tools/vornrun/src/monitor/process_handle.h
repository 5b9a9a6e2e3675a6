#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <csignal>

namespace vorn::run {

/// Signals that do not end the monitor: it follows the node only. Its children
/// have the default actions.
constexpr int kIgnoredSignals[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGPIPE, SIGTERM,
                                   SIGUSR1, SIGUSR2, SIGALRM, SIGTSTP};

/// pidfd_open(2): a descriptor that exec closes, or -1 and errno.
inline int openProcess(pid_t pid) {
  return static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
}

/// pidfd_send_signal(2): 0, or -1 and errno.
inline int signalProcess(int pidfd, int number) {
  return static_cast<int>(
      ::syscall(SYS_pidfd_send_signal, pidfd, number, nullptr, 0));
}

}  // namespace vorn::run
