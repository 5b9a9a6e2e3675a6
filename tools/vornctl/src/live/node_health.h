#pragma once

#include <string>
#include <vector>

#include "live/health.h"
#include "live/node_status.h"
#include "live/orphans.h"

namespace vorn::launch {

/// About all nodes, with their histories. `log_error` is the reason why the log
/// could not be read; empty if it was.
Finding nodesFinding(const std::vector<NodeView>& views,
                     const std::string& log_error);

/// About the programs of all nodes, with their staleness.
Finding programsFinding(const std::vector<NodeView>& views);

Finding orphansFinding(const Orphans& orphans);

}  // namespace vorn::launch
