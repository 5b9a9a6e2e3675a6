#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct PsOptions {
  std::vector<std::string> nodes;  // names and patterns; all if empty
  bool hasPorts = false;
  bool isJson = false;
};

/// Prints the processes of nodes. kNotRunning if nodes were named and one of
/// them has no process.
ExitStatus showProcesses(Context& context, const PsOptions& options);

}  // namespace vorn::launch
