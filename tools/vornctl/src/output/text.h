#pragma once

#include <string>
#include <string_view>

namespace vorn::launch {

/// Whether the text begins with `prefix`.
bool startsWith(std::string_view text, std::string_view prefix);

/// The text up to its first NUL, where it ends for the C library.
std::string untilNul(const std::string& text);

/// The text with its ASCII letters in upper or lower case.
std::string upperCase(std::string text);
std::string lowerCase(std::string text);

/// The text as the last argument of a command that a POSIX shell reads: quoted
/// if it contains other characters than letters, digits and "%+,-./:=@_", and
/// after "-- " if the command would parse it as an option.
std::string shellArgument(const std::string& text);

}  // namespace vorn::launch
