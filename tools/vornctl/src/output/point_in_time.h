#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vorn::launch {

/// A point in time, in microseconds since the epoch: "1h" is that long before
/// `now_us`; "2026-11-20", "2026-11-20 12:34" and "2026-11-20 12:34:56.789" are
/// local times; with "T" as the separator and "Z" at the end as in the
/// launcher's log, UTC. Nothing if the text is neither.
std::optional<int64_t> parsePointInTime(const std::string& text,
                                        int64_t now_us);

}  // namespace vorn::launch
