// reap_floor COUNT PROGRAM MODE: starts COUNT nodes and collects those that
// exit. MODE "wait" does nothing else; "calls" makes only the launcher's system
// calls and pauses, including log lines.

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

static void logLine(void) {
  static const char line[] =
      "2026-11-20T12:34:56.789012Z INFO  vornlaunch[10002] "
      "signal_handler.cpp:90 reapOneProcess: 'node12345' receive signal: 9.\n";
  if (write(2, line, sizeof(line) - 1) < 0) _exit(1);
}

static void waitOnly(void) {
  for (;;) waitpid(-1, NULL, 0);
}

static void waitAsTheLauncher(int signals) {
  const int epoll = epoll_create1(EPOLL_CLOEXEC);
  struct epoll_event event = {.events = EPOLLIN};
  epoll_ctl(epoll, EPOLL_CTL_ADD, signals, &event);
  for (;;) {
    struct epoll_event ready[2];
    struct signalfd_siginfo record;
    epoll_wait(epoll, ready, 2, -1);
    if (read(signals, &record, sizeof(record)) < 0) _exit(1);
    logLine();
    for (;;) {
      siginfo_t info;
      info.si_pid = 0;
      waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
      if (info.si_pid == 0) break;
      logLine();
      logLine();
      logLine();
      waitpid(info.si_pid, NULL, WNOHANG);
      usleep(1000);
    }
  }
}

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  const long count = atol(argv[1]);
  char* command[] = {argv[2], NULL};
  for (long i = 0; i < count; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      execv(argv[2], command);
      _exit(127);
    }
    if (child < 0) return 1;
  }
  if (strcmp(argv[3], "wait") == 0) waitOnly();
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGCHLD);
  sigprocmask(SIG_BLOCK, &set, NULL);
  waitAsTheLauncher(signalfd(-1, &set, SFD_CLOEXEC));
}
