#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vorn::launch {

/// The words of a command as a POSIX shell splits them, without expansions.
/// Nothing if a quote is not closed.
std::optional<std::vector<std::string>> shellWords(const std::string& command);

/// The words of a setting of a systemd unit: quotes around parts of words, and
/// C escapes. Nothing if a quote is not closed.
std::optional<std::vector<std::string>> unitWords(const std::string& text);

}  // namespace vorn::launch
