#pragma once

#include <cstdint>
#include <string>

#include "control_client.h"
#include "live/launcher_process.h"

namespace vorn::launch {

/// How a node is, as a person sees it: the launcher's state, and what follows
/// from its other values.
enum class Condition {
  RUNNING,
  EXITING,        // RUNNING, but its process is dead; about to be collected
  STOPPING,       // STOPPED, and its process is not collected yet
  STOPPED,        // not wanted
  NEVER_STARTED,  // STOPPED, and it was never anything else
  RESTARTING,     // it exited by itself, and waits for its restart
  DISABLED,
  UNKNOWN_NODE,  // the launcher does not know it
};

/// One node in a list of them.
struct NodeView {
  std::string name;
  Condition condition = Condition::UNKNOWN_NODE;
  NodeState state = NodeState::STOPPED;  // the launcher's word
  pid_t pid = 0;                         // 0 without a process
  int64_t startSeconds = 0;          // last start, since the epoch; 0 if never
  int64_t uptimeSeconds = 0;         // since then, of a process that lives
  int64_t restartInSeconds = 0;      // until the restart of a RESTARTING node
  bool isExecutableMissing = false;  // and so it was disabled
  std::string policy;    // "restart", "oneshot", "manual", "manual+oneshot"; or
                         // empty if unknown
  std::string required;  // names with a space between them
  std::string executable;
};

/// The view of a node from its status, which must be DONE or NOT_FOUND, and
/// from its description in the launch file, if `launcher` has one. `now` is in
/// seconds since the epoch.
NodeView viewOf(const LauncherProcess& launcher, const std::string& name,
                const StatusReply& status, int64_t now);

/// "running", "never started" and so on.
const char* wordFor(Condition condition);

/// The word for a state of the wire: "stopped", "running", "restarting",
/// "disabled".
const char* wordFor(NodeState state);

/// Seconds for a person: "42s", "3m 05s", "2h 07m", "5d 03h".
std::string formatSpan(int64_t seconds);

/// A point of time for a person, local: "2026-11-20 12:34:56"; "never" for 0.
std::string formatTime(int64_t seconds);

}  // namespace vorn::launch
