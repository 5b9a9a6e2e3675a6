#pragma once

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

/// Examines the installation and prints a finding for each examination, or all
/// as JSON. kFailed if one of them is an error or a warning.
ExitStatus examineInstallation(Context& context, bool is_json);

}  // namespace vorn::launch
