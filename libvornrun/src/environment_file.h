#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vorn::run {

/// Whether `name` is the name of an environment variable: ASCII letters, digits
/// and underscores, without a digit at the start.
bool isVariableName(std::string_view name);

/// The variables of a file in the grammar of systemd's EnvironmentFile=:
///
/// - One NAME=VALUE per line. Empty lines, lines that start with '#' or ';',
///   and lines without '=' are ignored.
/// - Blanks around the name and the value are removed.
/// - A value can be in single quotes, in which every character is literal, or
///   in double quotes, in which a backslash quotes only '"', '\', '`' and '$'.
///   Both can contain line ends; several quoted parts are joined.
/// - Without quotes a backslash quotes the next character.
/// - A backslash before a line end continues the line, except in single quotes.
/// - No variable is expanded.
struct EnvironmentFile {
  std::vector<std::pair<std::string, std::string>> variables;
  std::string error;  // "line 3: ..."; empty if the text is valid
};
EnvironmentFile parseEnvironmentFile(std::string_view text);

}  // namespace vorn::run
