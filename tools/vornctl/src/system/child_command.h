#pragma once

#include <string>
#include <vector>

namespace vorn::launch {

/// Runs a command, which is searched in PATH, with our standard streams, and
/// waits for it. True if it exits with status 0; otherwise `error` is a clause
/// whose subject is the command, such as "exited with status 3".
bool runCommand(const std::vector<std::string>& command, std::string& error);

}  // namespace vorn::launch
