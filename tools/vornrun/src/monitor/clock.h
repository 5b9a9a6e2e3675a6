#pragma once

#include <cstdint>
#include <ctime>
#include <string>

namespace vorn::run {

/// Never: later than every time.
constexpr int64_t kNever = INT64_MAX;

/// Milliseconds on the monotonic clock.
inline int64_t monotonicMs() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);  // cannot fail
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/// Unix time in seconds.
inline int64_t unixSeconds() {
  timespec now{};
  // time(2) can be behind a time that another process has read before.
  (void)::clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec};
}

/// "5s" or "1500ms".
inline std::string durationText(int64_t ms) {
  return ms % 1000 == 0 ? std::to_string(ms / 1000) + "s"
                        : std::to_string(ms) + "ms";
}

}  // namespace vorn::run
