#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

/// Shows nodes on the whole terminal, kept up to date, with keys to act on the
/// chosen one; all nodes if none are named. Ends by the key q, a stop signal or
/// when the launcher cannot be reached any more.
ExitStatus showTop(Context& context, const std::vector<std::string>& nodes);

}  // namespace vorn::launch
