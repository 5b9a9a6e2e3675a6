#pragma once

#include <optional>

#include "run_arguments.h"
#include "run_settings.h"

namespace vorn::run {

/// Sets the limits of this process, nice value, scheduling policy, processors,
/// I/O priority and score of the OOM killer. Returns the first error, after
/// which the process is unusable for the program.
std::optional<RunError> applyLimits(const RunSettings& settings);

}  // namespace vorn::run
