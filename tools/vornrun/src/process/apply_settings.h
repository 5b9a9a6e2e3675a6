#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "account.h"
#include "run_arguments.h"
#include "run_settings.h"

namespace vorn::run {

/// Applies the settings of this process, in the only order that works: the
/// control group, priorities and limits need the rights of the launcher; the
/// directory is entered with those of the user; and the parent-death signal is
/// cleared by the change of the user. `account` is nullptr without --user,
/// `parent` the parent at the start of vornrun. Returns the first error.
std::optional<RunError> applySettings(const RunSettings& settings,
                                      const std::string& node,
                                      const Account* account, pid_t parent);

}  // namespace vorn::run
