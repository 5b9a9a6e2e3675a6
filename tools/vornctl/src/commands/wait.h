#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct WaitOptions {
  enum class Goal { RUNNING, READY, STOPPED, DISABLED, RESTARTED, SUCCEEDED };

  std::vector<std::string> nodes;  // names and patterns, at least one
  Goal goal = Goal::RUNNING;
  std::chrono::milliseconds heldFor{0};  // how long the state must last
  std::optional<std::chrono::milliseconds> limit;  // none: forever
};

/// Waits until all nodes are in the requested state at the same time: RUNNING,
/// READY: running and, if vornrun checks that, ready,
/// STOPPED or DISABLED without a process, or RESTARTED, which is RUNNING since
/// another start than at the beginning of the wait, or SUCCEEDED: a oneshot
/// that exited with status 0; kFailed if it exited otherwise. With `heldFor`,
/// until the state has lasted for that time; kNotRunning if it does not last.
/// kTimedOut after `limit`.
ExitStatus waitForNodes(Context& context, const WaitOptions& options);

/// Prints a line for each node and for each of its changes, until the launcher
/// exits or a stop signal arrives. All nodes if none are named.
ExitStatus monitor(Context& context, const std::vector<std::string>& nodes,
                   bool is_json);

}  // namespace vorn::launch
