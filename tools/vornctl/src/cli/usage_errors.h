#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace vorn::launch {

/// The option of this name, of all commands or of any single one; null if there
/// is none. Owned by `app`.
const CLI::Option* findOption(const CLI::App& app, const std::string& name);

/// The command of this name; null if there is none. Owned by `app`.
const CLI::App* findCommand(const CLI::App& app, const std::string& name);

/// The message for the command line that `app` refused with this error.
std::string describeError(const CLI::App& app, const CLI::ParseError& error);

/// Writes a message and a reference to the help to standard error.
void printUsageError(const std::string& message);

/// Writes the message for an unknown command, with the nearest one.
void printUnknownCommand(const CLI::App& app, const std::string& word);

}  // namespace vorn::launch
