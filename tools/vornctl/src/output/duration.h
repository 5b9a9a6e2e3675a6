#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace vorn::launch {

/// A second in microseconds, for times since the epoch.
constexpr int64_t kSecondUs = 1'000'000;

/// A duration: "10" and "10s" are seconds, "500ms", "1.5m", "2h". Nothing if
/// the text is not a duration, is negative, or is longer than a year.
std::optional<std::chrono::milliseconds> parseDuration(const std::string& text);

}  // namespace vorn::launch
