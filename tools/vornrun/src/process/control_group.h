#pragma once

#include <optional>
#include <string>

#include "run_arguments.h"

namespace vorn::run {

/// The mount point of the cgroup v2 hierarchy in a text of the form of
/// /proc/PID/mountinfo; empty if there is none.
std::string controlGroupMount(const std::string& mountinfo);

/// The cgroup v2 path in a text of the form of /proc/PID/cgroup; empty if there
/// is none.
std::string controlGroupPath(const std::string& cgroup);

/// Moves this process to a control group named after the node, below the group
/// that systemd has delegated to the unit of the launcher. Kills the processes
/// of an earlier run that are still in it. Returns the error, if any.
std::optional<RunError> enterControlGroup(const std::string& node);

}  // namespace vorn::run
