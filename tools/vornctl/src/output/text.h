#pragma once

#include <string>

namespace vorn::launch {

/// The text up to its first NUL, which is where the C library sees it end.
std::string untilNul(const std::string& text);

/// The text with its lower-case ASCII letters as capitals.
std::string upperCase(std::string text);

}  // namespace vorn::launch
