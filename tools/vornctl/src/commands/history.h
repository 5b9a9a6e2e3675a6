#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct HistoryOptions {
  std::vector<std::string> nodes;  // names and patterns; all if empty
  int64_t sinceUs = 0;             // since the epoch; 0: the whole log
  size_t exits = 100;              // at most, the last ones
  bool isJson = false;
};

/// Prints the events in the launcher's log and the recorded actions, oldest
/// first. Needs no launcher if the settings name a log. kNoSuchNode if a named
/// node is neither in the launch file nor in the log.
ExitStatus showHistory(Context& context, const HistoryOptions& options);

}  // namespace vorn::launch
