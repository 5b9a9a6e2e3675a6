#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"
#include "live/health.h"

namespace vorn::launch {

/// The finding of one examination.
struct NamedFinding {
  std::string name;  // of the examination
  Finding finding;
};

/// Examines the installation. `launcher` is set to the pid of its launcher, 0
/// if there is none, or if it is not visible.
std::vector<NamedFinding> findingsOf(Context& context, pid_t& launcher);

/// Examines the installation and prints a finding for each examination, or all
/// as JSON. kFailed if one of them is an error or a warning.
ExitStatus examineInstallation(Context& context, bool is_json);

}  // namespace vorn::launch
