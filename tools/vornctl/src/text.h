#pragma once

#include <string>

namespace vorn::launch {

/// The text with every control character, those of direction included, and
/// every byte that is no UTF-8 as
/// "\x1b": a name must not move the cursor of a terminal or begin a new line.
std::string printable(const std::string& text);

/// The columns that a printable text takes on a terminal.
size_t displayWidth(const std::string& text);

/// As much of the beginning of a printable text as fits into `width` columns,
/// its last one an ellipsis if something is left out.
std::string fitted(const std::string& text, size_t width);

/// The text up to its first NUL, which is where the C library sees it end.
std::string untilNul(const std::string& text);

/// The text with its lower-case ASCII letters as capitals.
std::string upperCase(std::string text);

}  // namespace vorn::launch
