#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct DiffOptions {
  std::vector<std::string> files;  // the old and the new one
  bool isRunning = false;          // one file, with the running processes
  bool isJson = false;
};

/// Prints the nodes that differ between two launch files, or between the
/// running processes and a launch file. kFailed if there are any.
ExitStatus showDifference(Context& context, const DiffOptions& options);

}  // namespace vorn::launch
