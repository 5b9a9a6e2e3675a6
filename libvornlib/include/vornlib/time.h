#pragma once

#include <cstdint>
// Initializes the standard streams before main for every file that includes
// this header.
#include <iostream>
#include <limits>

namespace vorn {

constexpr int32_t kNanosecondsPerSecond = 1'000'000'000;

/// A point in time since an epoch that the user of the record chooses.
struct Time {
  uint32_t sec = 0;
  uint32_t nsec = 0;  // 0..999,999,999
};

/// A span of time, possibly negative: -0.5 s is sec -1, nsec 500,000,000.
struct Duration {
  int32_t sec = 0;
  int32_t nsec = 0;  // 0..999,999,999
};

/// Carries whole seconds from `nsec` to `sec`. Throws std::runtime_error if the
/// seconds then exceed 32 unsigned bits.
Time normalizeSecNSec(uint64_t sec, uint64_t nsec);

/// As above for spans: borrows a second if `nsec` is negative. Throws
/// std::runtime_error if the seconds then exceed 32 signed bits.
Duration normalizeSecNSecSigned(int64_t sec, int64_t nsec);

// The limits of both records, set before main.
inline const Time kTimeMin = normalizeSecNSec(0, 0);
inline const Time kTimeMax = normalizeSecNSec(
    std::numeric_limits<uint32_t>::max(), kNanosecondsPerSecond - 1);
inline const Duration kDurationMin =
    normalizeSecNSecSigned(std::numeric_limits<int32_t>::min(), 0);
inline const Duration kDurationMax = normalizeSecNSecSigned(
    std::numeric_limits<int32_t>::max(), kNanosecondsPerSecond - 1);

}  // namespace vorn
