#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "run_settings.h"

namespace vorn::run {

/// An option of vornrun that sets a member of RunSettings.
struct RunOption {
  const char* name = nullptr;         // without the dashes
  const char* placeholder = nullptr;  // of its value in the help; nullptr: flag
  const char* help = nullptr;
  /// Stores the value (empty for a flag). Returns the reason if the value is
  /// invalid, otherwise an empty text.
  std::string (*set)(RunSettings& settings, const std::string& value) = nullptr;
  const char* heading = nullptr;  // of the group in the help that starts here
};

/// All options, in the order of the help. "config", "help" and "version" are
/// not among them: see run_arguments.h.
const std::vector<RunOption>& runOptions();

/// The option of this name, nullptr if there is none.
const RunOption* findRunOption(std::string_view name);

/// The text of `vornrun --help`.
std::string runHelp();

}  // namespace vorn::run
