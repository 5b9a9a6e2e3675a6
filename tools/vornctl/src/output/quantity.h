#pragma once

#include <cstdint>
#include <string>

namespace vorn::launch {

/// Bytes for users, in the units of ps and top: "0", "640K", "12.1M", "1.5G".
std::string formatBytes(int64_t bytes);

/// A percentage for users, without the sign: "0.3".
std::string formatPercent(double percent);

}  // namespace vorn::launch
