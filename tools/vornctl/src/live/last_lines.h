#pragma once

#include <string>
#include <vector>

#include "live/log_history.h"
#include "live/log_source.h"

namespace vorn::launch {

/// The last lines before an exit in the log.
struct LastLines {
  std::vector<std::string> lines;
  bool areItsOwn = false;  // of the process; otherwise of any node
};

/// Reads the last `count` lines before `exit` that are not the launcher's: in
/// the journal those of the process, in a file those of all nodes. Empty if the
/// log cannot be read.
LastLines readLastLines(const LogLocation& location, const HistoryEvent& exit,
                        size_t count);

}  // namespace vorn::launch
