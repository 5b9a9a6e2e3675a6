#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "control_client.h"
#include "live/launcher_process.h"
#include "live/log_history.h"
#include "live/run_state.h"

namespace vorn::launch {

/// The state of a node for users, derived from the launcher's state and from
/// the other values of its reply.
enum class Condition {
  RUNNING,
  EXITING,   // RUNNING, but its process has exited and is about to be collected
  STOPPING,  // STOPPED, but its process has not been collected yet
  STOPPED,   // STOPPED by a command
  NEVER_STARTED,  // STOPPED, without a previous start
  RESTARTING,     // it exited by itself and waits for its restart
  DISABLED,
  FAILED,        // DISABLED, because it is a oneshot that exited with an error
  UNKNOWN_NODE,  // the launcher does not know it
};

/// One node in a list of them.
struct NodeView {
  std::string name;
  Condition condition = Condition::UNKNOWN_NODE;
  NodeState state = NodeState::STOPPED;  // as in the reply
  pid_t pid = 0;                         // 0: none
  int64_t startSeconds = 0;          // last start, since the epoch; 0 if never
  int64_t uptimeSeconds = 0;         // since then, if the process exists
  int64_t restartInSeconds = 0;      // until the restart of a RESTARTING node
  bool isExecutableMissing = false;  // the reason why it was disabled
  std::string policy;    // "restart", "oneshot", "manual", "manual+oneshot"; or
                         // empty if unknown
  std::string required;  // names with a space between them
  std::string executable;
  // From the log, see node_history.
  int64_t restarts =
      -1;  // in the last hour, after exits by itself; -1: unknown
  bool isCrashLoop = false;
  bool isForkFailed = false;  // the reason why it is stopped
  std::optional<HistoryEvent> lastExit;
  // From /proc, see node_usage; nothing if unknown or without a process.
  std::optional<double> cpuPercent;  // of one processor
  std::optional<double> cpuSeconds;  // children that have exited included
  std::optional<int64_t> memoryBytes;
  std::optional<bool> isStale;
  NodeRun run;  // of a RUNNING or DISABLED node
};

/// Whether the node runs and, if vornrun checks that, is ready.
bool isReady(const NodeView& view);

/// Whether a node is not as it should be: it has exited by itself or could not
/// be started. A node that an operator has stopped or disabled is not failing.
bool isFailing(const NodeView& view);

/// Combines the status of a node, which must be DONE or NOT_FOUND, with its
/// description in the launch file, if `launcher` has one. `now` is in seconds
/// since the epoch.
NodeView viewOf(const LauncherProcess& launcher, const std::string& name,
                const StatusReply& status, int64_t now);

/// Sets the times of a view to those at `now`, in seconds since the epoch.
void updateTimes(NodeView& view, int64_t now);

/// "running", "never started" and so on.
const char* wordFor(Condition condition);

/// The word for a state in a reply: "stopped", "running", "restarting",
/// "disabled".
const char* wordFor(NodeState state);

/// Seconds for users: "42s", "3m 05s", "2h 07m", "5d 03h".
std::string formatSpan(int64_t seconds);

/// A local time for users: "2026-11-20 12:34:56"; "never" for 0.
std::string formatTime(int64_t seconds);

}  // namespace vorn::launch
