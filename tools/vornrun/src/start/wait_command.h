#pragma once

#include <string>
#include <vector>

#include "account.h"
#include "process/environment.h"
#include "run_settings.h"

namespace vorn::run {

/// Runs a command without input and output, in a process group of its own, and
/// kills the group after `limit`. Returns whether the command exited with 0
/// within the limit. `account` and `environment` as for waitForConditions().
bool commandSucceeds(const std::vector<std::string>& arguments,
                     const Account* account, const Environment& environment,
                     milliseconds limit);

}  // namespace vorn::run
