#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct WaitOptions {
  enum class Goal { RUNNING, STOPPED, DISABLED, RESTARTED };

  std::vector<std::string> nodes;  // names and patterns, at least one
  Goal goal = Goal::RUNNING;
  std::chrono::milliseconds heldFor{0};  // how long the goal must hold
  std::optional<std::chrono::milliseconds> limit;  // none: for ever
};

/// Waits until all nodes are as wanted at the same time: RUNNING or DISABLED,
/// STOPPED and without a process, or RESTARTED, which is RUNNING with another
/// start than when the wait began. With `heldFor`, until that has held so long;
/// kNotRunning if it ends before. kTimedOut after `limit`.
ExitStatus waitForNodes(Context& context, const WaitOptions& options);

/// Prints a line for each node and for each of its changes, until the launcher
/// ends or a signal comes. All nodes if none are named.
ExitStatus monitor(Context& context, const std::vector<std::string>& nodes,
                   bool is_json);

}  // namespace vorn::launch
