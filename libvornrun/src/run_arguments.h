#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "run_settings.h"

namespace vorn::run {

/// An invalid command line or configuration file.
struct RunError {
  std::string option;  // "--limit", or "FILE:3: limit" for a line of a file;
                       // empty if the program is missing
  std::string reason;
};

/// A parsed command line.
struct RunArguments {
  enum class Request { EXECUTE, HELP, VERSION };
  Request request = Request::EXECUTE;
  RunSettings settings;    // valid without an error
  std::string configFile;  // of --config; empty: none
  std::vector<RunError> errors;
};

/// Parses the arguments of vornrun, without its own name. The file of --config
/// is read first, so that options of the command line replace its settings;
/// repeatable options add to them. Everything after "--" or from the first
/// argument without dashes is the program. Stops at the first error.
RunArguments parseRunArguments(const std::vector<std::string>& arguments);

/// Adds the settings of a configuration file to `settings`. `text` is its
/// content, `file` its name in errors. Returns all errors.
///
/// One "option = value" per line, with the names of the options; a flag has
/// the value "yes" or "no". "exec" is the program, and each "arg" one argument.
/// Blanks around the value are removed; a value in double quotes keeps them,
/// and a backslash in it quotes '"' and '\'. Empty lines and lines that start
/// with '#' or ';' are ignored.
std::vector<RunError> parseRunConfig(std::string_view text,
                                     const std::string& file,
                                     RunSettings& settings);

}  // namespace vorn::run
