#pragma once

#include <optional>
#include <string>
#include <vector>

#include "process/environment.h"

namespace vorn::run {

/// The path of the program `name`: itself if it contains a slash, otherwise the
/// first executable file of that name in PATH of `environment`, which is
/// /usr/bin:/bin if it is not set. Nothing if there is none.
std::optional<std::string> findProgram(const std::string& name,
                                       const Environment& environment);

/// Why the kernel clears the parent-death signal when it executes this file:
/// "a setuid program"; empty if it does not.
std::string privilegeOf(const std::string& path);

/// Replaces this process by the program `arguments`[0]. Returns only on
/// failure: the exit status, and in `reason` the text for it.
int executeProgram(const std::vector<std::string>& arguments,
                   const Environment& environment, std::string& reason);

}  // namespace vorn::run
