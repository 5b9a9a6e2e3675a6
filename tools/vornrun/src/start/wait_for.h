#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "account.h"
#include "process/environment.h"
#include "run_arguments.h"
#include "run_settings.h"

namespace vorn::run {

/// Waits until every condition of --wait-for has held once, in their order, and
/// at most --wait-timeout in all. Commands run as `account` (nullptr: as this
/// process), in the environment of the program. Returns an error after the
/// time limit, or if a condition can never hold. SIGTERM ends this process, and
/// the kernel then kills a command that runs. `on_condition` receives the
/// number of each condition, from 0, before its first check.
std::optional<RunError> waitForConditions(
    const RunSettings& settings, const Account* account,
    const Environment& environment,
    const std::function<void(size_t)>& on_condition);

}  // namespace vorn::run
