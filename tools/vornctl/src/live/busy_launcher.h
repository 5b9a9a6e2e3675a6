#pragma once

#include <sys/types.h>

#include <string>

namespace vorn::launch {

/// Why the launcher `pid` (0: unknown) does not answer, as far as /proc shows,
/// and the remedy: "launcher 42 is suspended ...". If /proc does not show it,
/// the likely reasons.
std::string explainSilence(pid_t pid);

/// Whether the process `pid` is known to have exited.
bool hasExited(pid_t pid);

}  // namespace vorn::launch
