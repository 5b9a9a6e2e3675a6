#pragma once

#include <sys/types.h>

#include <optional>

#include "process/environment.h"
#include "run_arguments.h"

namespace vorn::run {

/// Sets the signal that this process receives when its parent exits. `parent`
/// is the parent at the start of vornrun. Returns an error if that parent has
/// already exited. A change of the user clears the signal.
std::optional<RunError> setParentDeathSignal(int signal, pid_t parent);

/// Whether a node started by a launcher, according to its environment, was
/// adopted by process 1 before vornrun could read its parent.
bool lostLauncher(pid_t parent, const Environment& inherited);

}  // namespace vorn::run
