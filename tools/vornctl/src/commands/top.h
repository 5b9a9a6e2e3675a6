#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

/// Shows nodes on the whole terminal and keeps them up to date; keys act on the
/// selected node. All nodes if none are named. Returns after the key q, a stop
/// signal, or if the launcher can no longer be reached.
ExitStatus showTop(Context& context, const std::vector<std::string>& nodes);

}  // namespace vorn::launch
