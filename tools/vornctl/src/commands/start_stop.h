#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"
#include "vorn/control_protocol.h"

namespace vorn::launch {

/// An action and the nodes that it is applied to.
struct ActOptions {
  ControlRequest::Cmd cmd = ControlRequest::Cmd::START;
  std::vector<std::string> nodes;  // names and patterns
  bool isAll = false;              // all nodes of the launch file
  bool isConfirmed = false;        // do not ask before acting on all
  bool isStartedToo = false;       // after enable
  std::string reason;              // for the record of actions; empty: none
};

/// Acts on nodes: start, restart and enable in file order, stop and disable in
/// reverse order. Continues after a failure of a node, but not if the launcher
/// cannot be reached. Records the action. Returns the status of the first
/// failure.
ExitStatus act(Context& context, const ActOptions& options);

}  // namespace vorn::launch
