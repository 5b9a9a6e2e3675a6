#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "context/context.h"

namespace vorn::launch {

struct LogsOptions {
  std::vector<std::string> nodes;
  bool isFollowed = false;
  bool isPrevious = false;
  std::optional<size_t> count;  // of lines; nothing: all
  int64_t sinceUs = 0;          // since the epoch; 0: all
};

/// Prints the output of nodes and the launcher's lines about them.
ExitStatus showLogs(Context& context, const LogsOptions& options);

}  // namespace vorn::launch
