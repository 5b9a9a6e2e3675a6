#pragma once

#include <string>

#include "control_client.h"
#include "live/launcher_process.h"

// The operations on a node, for the commands that take any of them.

namespace vorn::launch {

/// The words for a command.
struct OperationWords {
  const char* command;  // "start"
  const char* doing;    // "starting"
  const char* done;     // "started"
};

OperationWords wordsFor(ControlRequest::Cmd cmd);

/// The sentence for a command that is DONE: "started", or "already running
/// (pid 42)" if `before`, the status of the node before the command, says so.
/// `before` that is not DONE is ignored.
std::string describeDone(ControlRequest::Cmd cmd,
                         const LauncherProcess& launcher,
                         const std::string& name, const StatusReply& before);

/// Why the command on this node FAILED, as far as can be known, and what to do.
/// Asks the launcher how the node is now.
std::string explainFailure(ControlClient& client,
                           const LauncherProcess& launcher,
                           const std::string& name, ControlRequest::Cmd cmd);

}  // namespace vorn::launch
