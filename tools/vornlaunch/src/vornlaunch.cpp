// The entry and the main loop. `vornlaunch launch.yaml` starts the nodes of the
// launch file and supervises them until a signal ends it.

#include "vornlaunch.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <mutex>
#include <string>

#include "control_node.h"
#include "epoll.h"
#include "node_manager.h"
#include "node_memory.h"
#include "parser.h"
#include "signal_handler.h"
#include "vornlib/time.h"
#include "vornlib/trace.h"

namespace {

using vorn::kError;
using vorn::kEvent;
using vorn::kPlain;

constexpr int kUsageStatus = 1;
constexpr int kRestartPollMs = 1000;
constexpr int kNoTimeout = -1;

// KEEP: SIGABRT is in the list twice and is installed twice, which is harmless.
// SIGPIPE is in the list so that the handler ignores it.
// Test: test_startup.py, test_the_twelve_fatal_signals_are_armed_in_order
constexpr int kFatalSignals[] = {SIGTERM, SIGQUIT, SIGHUP,  SIGSEGV,
                                 SIGBUS,  SIGABRT, SIGILL,  SIGFPE,
                                 SIGINT,  SIGABRT, SIGTRAP, SIGPIPE};

// Set by sig_seg_handler(), ends the main loop. A plain bool is enough: every
// iteration calls functions that the compiler does not see.
bool exited = false;
std::mutex signo_mutex_;

/// Gives standard output a buffer before the fatal signals are armed. Otherwise
/// the C library allocates one at the first use, usually in sig_seg_handler():
/// if the signal interrupts an allocation, that corrupts the heap. The mode is
/// the one that the C library chooses.
void bufferStandardOutput() {
  static char buffer[BUFSIZ];
  const int mode = ::isatty(STDOUT_FILENO) == 1 ? _IOLBF : _IOFBF;
  (void)std::setvbuf(stdout, buffer, mode, sizeof(buffer));
}

void armFatalSignals() {
  struct sigaction action {};
  action.sa_handler = sig_seg_handler;
  (void)::sigemptyset(&action.sa_mask);
  action.sa_flags = 0;  // without SA_RESTART: a signal interrupts a wait
  for (size_t i = 0; i < std::size(kFatalSignals); ++i) {
    if (::sigaction(kFatalSignals[i], &action, nullptr) != 0) {
      // KEEP: describes signal number `i`, the list index, not the refused
      // signal. Intended. Test: test_startup.py,
      // test_refused_fatal_signals_are_reported_by_list_index_and_the_nodes_start
      std::printf("Failed to setup fatal sigaction(%s)\n",
                  ::strsignal(static_cast<int>(i)));
    }
  }
}

/// Call it at the exit, before the buffer of standard output is written: if
/// standard output is a file at its size limit, SIGXFSZ must not turn a regular
/// exit into a termination by a signal.
void holdSizeLimitSignalOff() {
  sigset_t signals;
  (void)::sigemptyset(&signals);
  (void)::sigaddset(&signals, SIGXFSZ);
  (void)::sigprocmask(SIG_BLOCK, &signals, nullptr);
}

/// `path` with every run of slashes replaced by one, except two at the
/// beginning of a name such as "//host".
std::string withSingleSlashes(const std::string& path) {
  const bool keeps_two =
      path.size() > 2 && path[0] == '/' && path[1] == '/' && path[2] != '/';
  std::string single = keeps_two ? path.substr(0, 2) : std::string();
  for (size_t i = single.size(); i < path.size(); ++i) {
    const bool repeats =
        path[i] == '/' && !single.empty() && single.back() == '/';
    if (!repeats) single += path[i];
  }
  return single;
}

/// Whether a file of any type exists at `path`. Throws
/// std::filesystem::filesystem_error if that cannot be determined.
bool launchFileExists(const std::string& path) {
  return std::filesystem::exists(
      std::filesystem::status(withSingleSlashes(path)));
}

/// Waits for events and serves them until a fatal or stop signal arrives. The
/// flag is checked between batches, never inside one; a signal between that
/// check and the wait takes effect with the next event.
void runMainLoop(vorn::launch::Epoll& epoll) {
  auto& nodes = vorn::launch::NodeManager::getInstance();
  while (!exited) {
    const bool is_restart_pending = nodes.pollingRestart();
    for (const auto* handler :
         epoll.wait(is_restart_pending ? kRestartPollMs : kNoTimeout)) {
      (*handler)();
    }
  }
}

}  // namespace

// KEEP: locks and prints in a signal handler, where neither is safe. If another
// signal arrives while the mutex is locked, the launcher deadlocks; known and
// accepted. A real fault returns to its instruction and so spins silently;
// known as well. Add nothing here: sigdescr_np() and printf() allocate nothing
// for these signals, this format and the buffer that bufferStandardOutput()
// provides. strsignal() returns the same text, but allocates memory since glibc
// 2.41. Test: test_signals.py, test_only_the_first_fatal_signal_prints
void sig_seg_handler(int sig) {
  if (sig == SIGPIPE) return;
  {
    static bool sig_seg_handled = false;
    const std::scoped_lock lock(signo_mutex_);
    if (sig_seg_handled) return;
    sig_seg_handled = true;
  }
  std::printf("vornlaunch handle with %s(%d)\n", ::sigdescr_np(sig), sig);
  exited = true;
}

int main(int argc, char** argv) {
  vorn::setNodeName("vornlaunch");
  bufferStandardOutput();
  armFatalSignals();
  (void)std::atexit(holdSizeLimitSignalOff);
  if (argc != 2) {
    (void)std::puts("Usage: \n  vornlaunch launch.yaml\n\n");
    return kUsageStatus;
  }
  // Only this check merges repeated slashes; all other uses have the name as
  // typed.
  const std::string launch_file = argv[1];
  if (!launchFileExists(launch_file)) {
    VTRACE(kError, kEvent, "No launch file exists: %s", launch_file.c_str());
    return 0;
  }
  // KEEP: status 1 is only for a wrong number of arguments; main returns 0
  // after every other failure. Intended. Test: test_startup.py,
  // test_an_unreadable_launch_file_exits_with_status_0
  if (!vorn::launch::Parser().Parse(launch_file)) return 0;
  vorn::launch::packNodes(vorn::launch::NodeManager::getInstance().nodes());

  vorn::launch::Epoll epoll;
  if (!epoll.open()) {
    VTRACE(kError, kPlain, "epoll open failed.");
    return 0;
  }
  // KEEP: a launcher without supervision or without a control socket still
  // starts its nodes. Intended.
  // Test: test_startup.py, test_the_launcher_continues_without_a_control_socket
  (void)vorn::launch::installSignalHandler(&epoll);
  (void)vorn::launch::ControlNode::getInstance().init(&epoll);
  vorn::launch::NodeManager::getInstance().startingUp();
  runMainLoop(epoll);
  // KEEP: the nodes continue as orphans; only SIGTERM stops them. Intended.
  // Test: test_signals.py,
  // test_a_fatal_signal_interrupts_the_wait_and_ends_the_loop
  return 0;
}
