#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct StatusOptions {
  std::vector<std::string> nodes;    // names and patterns; all if empty
  std::vector<std::string> columns;  // of statusColumns(); empty: default
  bool isFailedOnly = false;
  bool isJson = false;
  bool isPlain = false;  // tabs, bare numbers
  bool hasHeader = true;
};

/// Prints the status of nodes. kNotRunning if nodes were named and one of them
/// does not run. With isFailedOnly, kFailed if a node has failed.
ExitStatus showStatus(Context& context, const StatusOptions& options);

}  // namespace vorn::launch
