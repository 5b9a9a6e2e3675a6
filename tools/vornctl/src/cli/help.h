#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "context/exit_status.h"

namespace vorn::launch {

/// The help of a command after its options: examples, the columns of `status`,
/// and the exit statuses.
std::string helpFooter(const std::string& command);

/// Prints the help of the command `topic` of `app`; of `app` if it is empty.
/// kUsage after a message if the command does not exist.
ExitStatus printHelp(const CLI::App& app, const std::string& topic);

}  // namespace vorn::launch
