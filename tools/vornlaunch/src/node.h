#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "config.h"
#include "vorn/node_state.h"
#include "vornlib/time.h"

namespace vorn::launch {

/// One supervised child process: its program, its environment, and the action
/// after its exit. The parser fills it, NodeManager owns it for the life of the
/// process, all others borrow plain pointers.
///
/// Main thread only. Starts and stops block the launcher intentionally: a start
/// for `sleep`, a stop for about ten seconds, and again for each node in
/// `required`. Unless documented otherwise, an operation that changes the state
/// locks `mutex` for its whole duration; a stop then also locks the nodes in
/// `required`, so locks nest along `required`, and a cycle of two or more nodes
/// deadlocks. Operations report a failure by a log line and `false`.
class Node final {
 public:
  explicit Node(std::string name);
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  // Next to the other nodes, see node_memory.h. The class is final, because the
  // memory always has its own size.
  static void* operator new(size_t size);
  static void operator delete(void* memory) noexcept;

  /// Starts the child, after a delay of `sleep`. True when the node is running
  /// afterwards, which includes one that was already running. False when it is
  /// disabled (then DISABLED), when its one-time autostart skip applies, when
  /// the executable is missing (then disabled), or when the fork failed.
  bool start();

  /// start() for callers that hold `mutex`.
  bool startInternal();

  /// Replaces the process by the program with these `arguments`, which must not
  /// be empty; the first one is also the file, not searched for in PATH.
  /// Returns false, and only on failure.
  bool execvInternal(const std::vector<std::string>& arguments);

  /// Terminates the child of a RUNNING node and restarts the running nodes in
  /// `required`. Returns when the child is dead or was sent SIGKILL; a later
  /// reap() handles its exit, and `pid` keeps its id until then. A RESTARTING
  /// node becomes and remains STOPPED; any other is unchanged. False only if
  /// SIGTERM could not be sent; the node is then still RUNNING, but its exit
  /// makes it STOPPED.
  bool stop();

  /// stop() for callers that hold `mutex`.
  bool stopInternal();

  /// Restarts this node if it is RUNNING, with a pause of 200 ms, because a
  /// node that requires it stops or restarts. True if it was not running, or
  /// was stopped and started again. A running oneshot is stopped and disabled,
  /// and the result is false.
  bool stopRequired();

  /// Calls stopRequired() on every node that `required` names, in its order.
  /// The node's own name and unknown names are ignored. Does not lock
  /// this node's `mutex`.
  void restartRequired();

  /// Stops a running child, then starts the node after a pause of 200 ms. True
  /// when it was started.
  bool restart();

  /// Handles the exit of the child: the node becomes DISABLED, STOPPED or
  /// RESTARTING, depending on its flags. `info`, as waitid() filled it, is
  /// unused.
  void reap(const siginfo_t& info);

  /// Stops the node and marks it disabled, even if the stop fails. Returns the
  /// stop's result.
  bool disable();

  /// Makes a disabled node startable. Always true.
  // KEEP: takes no lock, leaves the state at DISABLED and starts nothing,
  // unlike disable(); an operator decides when it runs again. Intended.
  // Test: NodeTest.EnableLeavesTheStateDisabled
  bool enable();

  /// Whole seconds since the last successful fork, truncated; before the first
  /// one the steady clock's own reading.
  int64_t getStartInterval() const;

  std::string name;                   // unique by convention only
  std::vector<std::string> argv;      // [0] is the executable's path
  std::vector<std::string> required;  // nodes restarted together with this one
  Environment environment;            // set in the child after Config's
  bool disabled = false;              // every start fails until enable()
  bool oneshot = false;               // disabled by its exit, not restarted
  bool stopped = false;   // a stop was requested since the last fork
  bool autostart = true;  // false: the next start attempt is skipped
  uint32_t sleep = 0;     // milliseconds before each fork
  std::chrono::steady_clock::time_point startTime{};      // last fork, or zero
  std::chrono::system_clock::time_point startWallTime{};  // last fork, or zero
  std::mutex mutex;
  pid_t pid = 0;  // 0: no child
  NodeState state = NodeState::STOPPED;

 private:
  [[noreturn]] void runChild() noexcept;
  bool waitUntilGone() const;
};

}  // namespace vorn::launch
