#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"
#include "vorn/control_protocol.h"

namespace vorn::launch {

/// What to do to which nodes.
struct ActOptions {
  ControlRequest::Cmd cmd = ControlRequest::Cmd::START;
  std::vector<std::string> nodes;  // names and patterns
  bool isAll = false;              // every node of the launch file instead
  bool isConfirmed = false;        // do not ask before acting on all
  bool isStartedToo = false;       // after enable
};

/// Acts on nodes: start, restart and enable in file order, stop and disable in
/// reverse. Goes on after a node that fails, but not when the launcher cannot
/// be reached. Returns the status of the first failure.
ExitStatus act(Context& context, const ActOptions& options);

}  // namespace vorn::launch
