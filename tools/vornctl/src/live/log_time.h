#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorn::launch {

/// The length of the time at the start of a launcher's line in a file:
/// "2026-11-20T12:34:56.789012Z".
constexpr size_t kLogTimeLength = 27;

/// The UTC time at the start of a launcher's line, in microseconds since the
/// epoch. Nothing if the text does not start with a time and a space.
std::optional<int64_t> parseLogTime(std::string_view line);

/// A time as such a line has it.
std::string formatLogTime(int64_t time_us);

}  // namespace vorn::launch
