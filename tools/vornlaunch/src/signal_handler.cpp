#include "signal_handler.h"

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "epoll.h"
#include "node.h"
#include "node_manager.h"
#include "vornlib/retry_on_eintr.h"
#include "vornlib/time.h"
#include "vornlib/trace.h"

namespace vorn::launch {

int signal_fd = -1;

namespace {

constexpr useconds_t kReapPauseUs = 1'000;

sigset_t routedSignals() {
  sigset_t signals;
  (void)::sigemptyset(&signals);
  (void)::sigaddset(&signals, SIGCHLD);
  (void)::sigaddset(&signals, SIGTERM);
  return signals;
}

void setDefaultDisposition(int signal, int flags) {
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  action.sa_flags = flags;
  (void)::sigaction(signal, &action, nullptr);
}

/// Collects a zombie at the end of its scope, also after an exception.
class ZombieCollector {
 public:
  explicit ZombieCollector(pid_t pid) : pid_(pid) {}
  ~ZombieCollector() {
    (void)retryOnEintr([this] { return ::waitpid(pid_, nullptr, WNOHANG); });
  }
  ZombieCollector(const ZombieCollector&) = delete;
  ZombieCollector& operator=(const ZombieCollector&) = delete;

 private:
  pid_t pid_;
};

/// Handles one exited child. False if there is none left or waitid() failed.
bool reapOneProcess() {
  siginfo_t info{};
  const int result = retryOnEintr(
      [&] { return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT); });
  // KEEP: without any child left this fails with ECHILD, so that the exit of
  // the last one is followed by this line. Intended.
  // Test: ReapTest.WithoutAnyChildWaitidFails
  if (result != 0) {
    VTRACE(kError, kPlain, "waitid failed");
    return false;
  }
  if (info.si_pid == 0) return false;  // no exited child left

  // WNOWAIT left a zombie, so its pid cannot be reused before the node is
  // updated.
  const ZombieCollector collector(info.si_pid);
  VTRACE(kInfo, kPlain, "si_pid: %d, si_code: %d, si_status: %d", info.si_pid,
         info.si_code, info.si_status);
  Node* const node = NodeManager::getInstance().findNode(info.si_pid);
  if (node != nullptr) {
    if (info.si_code == CLD_EXITED) {
      VTRACE(kInfo, kPlain, "'%s' exited with status: %d.", node->name.c_str(),
             info.si_status);
    } else {
      VTRACE(kInfo, kPlain, "'%s' receive signal: %d.", node->name.c_str(),
             info.si_status);
    }
    node->reap(info);
  } else if (info.si_code == CLD_KILLED && info.si_status == SIGKILL) {
    // For example, killed by a stop whose node has been started again.
    VTRACE(kInfo, kPlain, "node is killed.");
  }
  return true;
}

[[noreturn]] void stopAllNodesAndExit() {
  for (const auto& node : NodeManager::getInstance().nodes()) {
    (void)node->stop();
  }
  // KEEP: neither returns to the loop nor collects the children. Each stop has
  // already waited for its own child; init collects the remaining ones.
  // Intended. Test: test_signals.py,
  // test_sigterm_stops_every_node_in_order_and_exits_0
  std::exit(0);
}

}  // namespace

bool installSignalHandler(Epoll* epoll) {
  // Not SIG_IGN, which would let the kernel discard the exits of children.
  setDefaultDisposition(SIGCHLD, SA_NOCLDSTOP);
  const sigset_t signals = routedSignals();
  if (::sigprocmask(SIG_BLOCK, &signals, nullptr) == -1) {
    VTRACE(kError, kPlain, "Failed to block signals");
    return false;
  }
  if (::pthread_atfork(nullptr, nullptr, unblockSignals) != 0) {
    VTRACE(kError, kPlain, "Failed to register a fork handler");
    return false;
  }
  signal_fd = ::signalfd(-1, &signals, SFD_CLOEXEC);
  if (signal_fd == -1) {
    VTRACE(kError, kPlain, "Failed to create signalfd");
    return false;
  }
  return epoll->registerHandler(signal_fd, handleSignalFd, EPOLLIN);
}

void unblockSignals() {
  setDefaultDisposition(SIGCHLD, 0);
  // Until exec the child has the launcher's own handler for SIGTERM, which
  // would ignore a stop that arrives this early, so that it takes ten seconds.
  setDefaultDisposition(SIGTERM, 0);
  // KEEP: until exec the child also has the launcher's handler for SIGINT,
  // SIGHUP and SIGQUIT: if one of them arrives before exec, it is lost. Only
  // SIGTERM, which the launcher itself sends, is reset. Intended.
  // Test: UnblockSignalsTest.GivesBothSignalsTheirDefaultsThenUnblocksThem
  const sigset_t signals = routedSignals();
  if (::sigprocmask(SIG_UNBLOCK, &signals, nullptr) == -1) {
    VTRACE(kError, kPlain, "failed to unblock signals for PID");
  }
}

void handleSignalFd() {
  signalfd_siginfo record{};
  if (::read(signal_fd, &record, sizeof(record)) != sizeof(record)) {
    VTRACE(kError, kPlain, "Failed to read siginfo from signal_fd.");
    return;
  }
  const auto signal = static_cast<int>(record.ssi_signo);
  VTRACE(kInfo, kPlain, "ssi_signo: %d", signal);
  if (signal == SIGTERM) stopAllNodesAndExit();
  if (signal != SIGCHLD) {
    VTRACE(kError, kPlain, "received unexpected signal: %d", signal);
    return;
  }
  // One record represents any number of exits: the kernel merges them.
  while (reapOneProcess()) (void)::usleep(kReapPauseUs);
}

}  // namespace vorn::launch
