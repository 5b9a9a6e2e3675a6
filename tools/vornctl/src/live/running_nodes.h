#pragma once

#include <string>
#include <vector>

#include "launchfile/launch_file.h"
#include "live/process_table.h"

// The nodes of a launcher as a launch file that would start its processes, to
// compare them with a launch file.

namespace vorn::launch {

/// The process of a node.
struct RunningNode {
  std::string name;
  std::vector<std::string> argv;
  std::vector<std::string> environment;  // "NAME=value"
};

/// The process of each node of the launcher `launcher`, in no particular order.
/// `unreadable` is the number of nodes that cannot be examined without
/// permission.
std::vector<RunningNode> readRunningNodes(const ProcessTable& table,
                                          pid_t launcher, size_t& unreadable);

/// `file` with the variables of `configure` in each node, where a process has
/// them.
LaunchFile withAllVariables(LaunchFile file);

/// `file`, a result of withAllVariables(), with the arguments and variables of
/// the running nodes. Does not contain nodes that should run and have no
/// process; contains further nodes that run. A process can have executed
/// another program: it is unchanged if the arguments of the file end with its
/// own, or its own with those of the file, as after "#!". `inherited` is the
/// launcher's own environment.
LaunchFile asRunning(const LaunchFile& file,
                     const std::vector<RunningNode>& running,
                     const std::vector<std::string>& inherited);

}  // namespace vorn::launch
