#pragma once

#include <string>

#include "control_client.h"
#include "live/launcher_process.h"

// The commands on a node, their words and the explanation of their results.

namespace vorn::launch {

/// The words for a command.
struct OperationWords {
  const char* command;  // "start"
  const char* doing;    // "starting"
  const char* done;     // "started"
};

OperationWords wordsFor(ControlRequest::Cmd cmd);

/// The sentence for a command that is DONE: "started", or "already running
/// (pid 42)" if that was the status `before` the command. `before` is ignored
/// if it is not DONE.
std::string describeDone(ControlRequest::Cmd cmd,
                         const LauncherProcess& launcher,
                         const std::string& name, const StatusReply& before);

/// The probable reason why the command on this node FAILED, and the remedy.
/// Sends a status request.
std::string explainFailure(ControlClient& client,
                           const LauncherProcess& launcher,
                           const std::string& name, ControlRequest::Cmd cmd);

}  // namespace vorn::launch
