#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace vorn::launch {

/// A span of time as people write it: "10" and "10s" are seconds, "500ms",
/// "1.5m", "2h". Nothing if it is none, or negative, or over a year.
std::optional<std::chrono::milliseconds> parseDuration(const std::string& text);

}  // namespace vorn::launch
